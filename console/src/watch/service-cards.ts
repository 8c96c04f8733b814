import type { WatchSide } from '../app.js';
import type { Item, ItemName, Status } from '../control/messages.js';
import { h, setText } from '../dom.js';
import type { Part } from '../phone/view.js';
import { ITEM_NAMES } from '../store/observed.js';
import { ageText, numberText, sensorActivityText, timeText } from '../texts.js';
import { lengthText } from './lengths.js';

const REFRESH_MS = 1000;
const UNITS: Readonly<Record<string, string>> = {
  'hrm/heart_rate': 'bpm',
  'hrm/peak_to_peak': 'ms peak to peak',
  'hrm/spo2': '% oxygen',
  'pedometer/total_steps': 'steps',
  'pedometer/walk_steps': 'walking',
  'pedometer/run_steps': 'running',
  'pedometer/distance': 'm',
  'pedometer/calories': 'kcal',
  'pedometer/speed': 'km/h',
  'activity/accuracy': 'accuracy',
};

/** A list of names with their values, the texts of which change in place. */
class Facts {
  readonly element: HTMLElement;
  #names: readonly string[] = [];
  #values: readonly HTMLElement[] = [];

  constructor(name: string, isLong = false) {
    this.element = h('dl', { class: isLong ? 'facts long' : 'facts', 'aria-label': name });
  }

  show(facts: readonly (readonly [string, string])[]): void {
    const names = facts.map(([name]) => name);
    if (names.join('\n') !== this.#names.join('\n')) {
      this.#names = names;
      this.#values = facts.map(() => h('dd', {}));
      this.element.replaceChildren(
        ...facts.flatMap(([name], index) =>
          [h('dt', {}, name), this.#values[index]].filter((one) => one !== undefined),
        ),
      );
    }
    facts.forEach(([, text], index) => {
      const value = this.#values[index];
      if (value) {
        setText(value, text);
      }
    });
  }
}

/** Who keeps what on, the power locks, the link, and what is stored. */
export class ServiceCards implements Part {
  readonly elements: readonly HTMLElement[];
  readonly element: HTMLElement;
  readonly #watch: WatchSide;
  readonly #rows = new Map<ItemName, readonly HTMLElement[]>(
    ITEM_NAMES.map((item) => [item, [0, 1, 2, 3].map(() => h('td', {}))]),
  );
  readonly #locks = new Facts('Power locks');
  readonly #link = new Facts('Link');
  readonly #preferences = new Facts('Stored preferences', true);
  readonly #unlisten: () => void;
  #timer: ReturnType<typeof setInterval> | undefined;

  constructor(watch: WatchSide) {
    this.#watch = watch;
    this.element = this.#itemsCard();
    this.elements = [
      this.element,
      h('section', { class: 'card', id: 'link' }, h('h2', {}, 'Link'), this.#link.element),
      h('section', { class: 'card', id: 'locks' }, h('h2', {}, 'Power locks'), this.#locks.element),
      h(
        'section',
        { class: 'card', id: 'preferences' },
        h('h2', {}, 'Stored preferences'),
        this.#preferences.element,
      ),
    ];
    this.#unlisten = watch.observed.status.listen(() => {
      this.#show();
    });
  }

  shown(): void {
    this.#show();
    this.#timer = setInterval(() => {
      this.#show();
    }, REFRESH_MS);
  }

  hidden(): void {
    clearInterval(this.#timer);
  }

  close(): void {
    this.hidden();
    this.#unlisten();
  }

  #itemsCard(): HTMLElement {
    const headings = ['Sensor', 'Kept on by', 'Source', 'Last reading', 'Readings delivered'];
    const table = h(
      'table',
      {},
      h('thead', {}, h('tr', {}, ...headings.map((text) => h('th', { scope: 'col' }, text)))),
      h(
        'tbody',
        {},
        ...[...this.#rows].map(([item, cells]) =>
          h(
            'tr',
            { id: `item-${item}` },
            h('th', { scope: 'row' }, item.replace('_', ' ')),
            ...cells,
          ),
        ),
      ),
    );
    return h(
      'section',
      { class: 'card wide', id: 'items' },
      h('h2', {}, 'Who keeps what on'),
      h(
        'div',
        { class: 'scroll', tabindex: 0, role: 'region', 'aria-label': 'Who keeps what on' },
        table,
      ),
    );
  }

  #show(): void {
    const { observed } = this.#watch;
    const status = observed.status.value;
    if (!status) {
      return;
    }
    const now = 1000 * observed.now();
    for (const item of status.items) {
      const texts = [
        keepersText(item, now),
        item.problem ?? item.source,
        this.#lastText(item.item, now),
        numberText(item.delivered),
      ];
      texts.forEach((text, index) => {
        const cell = this.#rows.get(item.item)?.[index];
        if (cell) {
          setText(cell, text);
        }
      });
    }
    this.#link.show(linkFacts(status, now));
    this.#locks.show(lockFacts(status, now));
    this.#preferences.show(preferenceFacts(status));
  }

  #lastText(item: ItemName, now: number): string {
    const latest = this.#watch.observed.latest(item);
    if (!latest) {
      return '–';
    }
    const values = Object.entries(latest.values).map(([name, value]) => valueText(name, value));
    return `${values.join(', ')}; ${ageText(now - 1000 * latest.time)}`;
  }
}

function since(instant: string, now: number): string {
  const at = Date.parse(instant);
  return `since ${timeText(at)} (${lengthText(now - at)})`;
}

function keepersText({ subscription, kept_by }: Item, now: number): string {
  const keepers = [
    ...(subscription
      ? [`request ${subscription.request_id} ${since(subscription.since, now)}`]
      : []),
    ...kept_by.map((keeper) => `process ${keeper.pid}, which records, ${since(keeper.since, now)}`),
  ];
  return keepers.length > 0 ? keepers.join('; ') : 'nobody: it is off';
}

function valueText(name: string, value: number): string {
  if (name === 'hrm/heart_rate' && value < 0) {
    return 'not worn';
  }
  if (name === 'activity/status') {
    return sensorActivityText(value);
  }
  const digits = Number.isInteger(value) ? 0 : 1;
  return name === 'motion/action'
    ? `gesture ${value}`
    : `${numberText(value, digits)} ${UNITS[name] ?? name}`;
}

function linkFacts({ link, host }: Status, now: number): (readonly [string, string])[] {
  const by = link.set_by === null ? '' : `, by process ${link.set_by}`;
  const traffic = (packets: number, bytes: number) =>
    `${numberText(packets)} packets, ${numberText(bytes)} bytes`;
  return [
    ['State', `${link.state}${by}`],
    [
      'Phone',
      host ? `process ${host.pid} of user ${host.user}, ${since(host.since, now)}` : 'none',
    ],
    ['Its state', link.host_state],
    ['From the phone', traffic(link.packets_in, link.bytes_in)],
    ['To the phone', traffic(link.packets_out, link.bytes_out)],
    ['Queue was full', `${numberText(link.queue_full)} times`],
    ['Phones refused', numberText(link.refused_hosts)],
  ];
}

function lockFacts({ power_locks: locks }: Status, now: number): (readonly [string, string])[] {
  return locks.length === 0
    ? [['None', 'the watch may sleep']]
    : locks.map(({ state, held_by: by, since: taken, ends }) => [
        `State ${state}`,
        `${by === 'none' ? 'kept by the service alone' : `held by ${by}`}, ${since(taken, now)}, ` +
          `ends in ${lengthText(Date.parse(ends) - now)}`,
      ]);
}

function preferenceFacts(status: Status): (readonly [string, string])[] {
  const { preferences, preferences_left_out: leftOut } = status;
  if (preferences === null) {
    return [['None', 'they cannot be read']];
  }
  const facts = Object.entries(preferences).map(([key, value]) => [key, String(value)] as const);
  const more = leftOut === undefined ? [] : [['…', `${leftOut} more, which are too long`] as const];
  return facts.length + more.length > 0 ? [...facts, ...more] : [['None', 'nothing is stored yet']];
}
