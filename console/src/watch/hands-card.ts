import type { App, WatchSide } from '../app.js';
import type { Item, ItemName, Status } from '../control/messages.js';
import { h, setText, type Child } from '../dom.js';
import type { Part } from '../phone/view.js';
import { errorText } from '../texts.js';
import { Walk } from './walk.js';

const STEP_MS = 500;
const ACTIVITIES = ['still', 'walking', 'running', 'other'] as const;

/** Values by hand: what a wearer does to the watch. */
export class HandsCard implements Part {
  readonly element: HTMLElement;
  readonly #app: App;
  readonly #watch: WatchSide;
  readonly #hint = h('p', { class: 'notice' });
  readonly #fields = new Map<ItemName, HTMLFieldSetElement>();
  readonly #rate = h('input', { id: 'hand-heart', type: 'range', min: 30, max: 220, value: 72 });
  readonly #rateText = h('output', { for: 'hand-heart' }, '72 bpm');
  readonly #wrist = h('button', { id: 'hand-wrist', 'aria-pressed': 'false' }, 'Off the wrist');
  readonly #cadence = h('input', {
    id: 'hand-cadence',
    type: 'range',
    min: 0,
    max: 220,
    step: 5,
    value: 110,
  });
  readonly #cadenceText = h('output', { for: 'hand-cadence' }, '110 steps/min');
  readonly #walkButton = h('button', { id: 'hand-walk', 'aria-pressed': 'false' }, 'Walk');
  readonly #gesture = h('input', { id: 'hand-gesture', type: 'number', value: 1, step: 1 });
  readonly #activities = ACTIVITIES.map((activity) =>
    h(
      'button',
      {
        'aria-pressed': 'false',
        onclick: () => void this.#do({ request: 'set', item: 'activity', value: activity }),
      },
      activity,
    ),
  );
  readonly #link = h('button', { id: 'hand-link' });
  readonly #unlisten: (() => void)[];
  #walking: ReturnType<typeof setInterval> | undefined;
  /** The rate that is to be told when the one before has been. */
  #nextRate: number | undefined;
  #isTelling = false;

  constructor(app: App, watch: WatchSide) {
    this.#app = app;
    this.#watch = watch;
    const all = h(
      'div',
      { class: 'hands' },
      this.#heart(),
      this.#steps(),
      this.#field('activity', 'Activity', ...this.#activities),
      this.#gestures(),
      this.#others(),
    );
    this.element = h(
      'section',
      { class: 'card wide', id: 'hands' },
      h('h2', {}, 'By hand'),
      this.#hint,
      all,
    );
    this.#unlisten = [
      watch.observed.status.listen((status) => {
        this.#show(status);
      }),
      watch.observed.readings.listen(() => {
        this.#showSet();
      }),
    ];
    if (!watch.maySteer) {
      all.replaceChildren();
    }
  }

  close(): void {
    this.#stopWalking();
    this.#unlisten.forEach((end) => {
      end();
    });
  }

  #field(item: ItemName, title: string, ...children: Child[]): HTMLElement {
    const field = h(
      'fieldset',
      {},
      h('legend', {}, title),
      h('div', { class: 'row' }, ...children),
    );
    this.#fields.set(item, field);
    return field;
  }

  #heart(): HTMLElement {
    this.#rate.addEventListener('input', () => {
      this.#nextRate = this.#rate.valueAsNumber;
      void this.#tellRate();
    });
    this.#wrist.addEventListener('click', () => {
      const isOff = this.#wrist.getAttribute('aria-pressed') === 'true';
      const value = isOff ? this.#rate.valueAsNumber : 'off-wrist';
      void this.#do({ request: 'set', item: 'heart_rate', value });
    });
    const label = h('label', { for: 'hand-heart', class: 'hidden' }, 'Heart rate');
    return this.#field('heart_rate', 'Heart rate', label, this.#rate, this.#rateText, this.#wrist);
  }

  /** A slider is quicker than the service is asked: of what has come meanwhile the last one counts. */
  async #tellRate(): Promise<void> {
    setText(this.#rateText, `${this.#rate.value} bpm`);
    if (this.#isTelling) {
      return;
    }
    this.#isTelling = true;
    while (this.#nextRate !== undefined) {
      const value = this.#nextRate;
      this.#nextRate = undefined;
      await this.#do({ request: 'set', item: 'heart_rate', value });
    }
    this.#isTelling = false;
  }

  #steps(): HTMLElement {
    this.#cadence.addEventListener('input', () => {
      setText(this.#cadenceText, `${this.#cadence.value} steps/min`);
    });
    this.#walkButton.addEventListener('click', () => {
      if (this.#walking === undefined) {
        this.#startWalking();
      } else {
        this.#stopWalking();
      }
    });
    const add = h(
      'button',
      { id: 'hand-steps', onclick: () => void this.#addSteps(10) },
      'Add 10 steps',
    );
    const label = h('label', { for: 'hand-cadence', class: 'hidden' }, 'Cadence');
    return this.#field(
      'pedometer',
      'Steps',
      label,
      this.#cadence,
      this.#cadenceText,
      this.#walkButton,
      add,
    );
  }

  #startWalking(): void {
    const walk = new Walk(performance.now());
    this.#walking = setInterval(() => {
      const steps = walk.stepsUntil(performance.now(), this.#cadence.valueAsNumber);
      if (steps > 0) {
        void this.#addSteps(steps);
      }
    }, STEP_MS);
    this.#walkButton.setAttribute('aria-pressed', 'true');
    setText(this.#walkButton, 'Stand still');
  }

  #stopWalking(): void {
    clearInterval(this.#walking);
    this.#walking = undefined;
    this.#walkButton.setAttribute('aria-pressed', 'false');
    setText(this.#walkButton, 'Walk');
  }

  async #addSteps(steps: number): Promise<void> {
    if (!(await this.#do({ request: 'set', item: 'steps', add: steps }))) {
      this.#stopWalking();
    }
  }

  #gestures(): HTMLElement {
    const make = h(
      'button',
      {
        onclick: () => {
          const value = this.#gesture.valueAsNumber;
          void this.#do({ request: 'set', item: 'gesture', value }, `Gesture ${value} is made.`);
        },
      },
      'Make it',
    );
    const label = h('label', { for: 'hand-gesture', class: 'hidden' }, 'Number of the gesture');
    return this.#field('gesture', 'Gesture, by its number', label, this.#gesture, make);
  }

  /** What befalls the service, whatever its sensors are. */
  #others(): HTMLElement {
    this.#link.addEventListener('click', () => {
      const isUp = this.#watch.observed.status.value?.link.state === 'up';
      void this.#do({ request: 'link', state: isUp ? 'down' : 'up' });
    });
    const low = (what: 'memory' | 'battery') =>
      h(
        'button',
        {
          id: `hand-${what}`,
          onclick: () => {
            if (confirm(`The service ends when the ${what} is low. Go on?`)) {
              void this.#do(
                { request: what, state: 'low' },
                `The service is told: ${what} is low.`,
              );
            }
          },
        },
        `${what === 'memory' ? 'Memory' : 'Battery'} is low`,
      );
    return h(
      'fieldset',
      {},
      h('legend', {}, 'Link and device'),
      h('div', { class: 'row' }, this.#link, low('memory'), low('battery')),
    );
  }

  /** @returns whether it was done */
  async #do(request: object, done = ''): Promise<boolean> {
    try {
      await this.#watch.requests.ask(request);
      if (done !== '') {
        this.#app.say(done);
      }
      return true;
    } catch (error) {
      this.#app.say(`Not done: ${errorText(error)}`, true);
      return false;
    }
  }

  #show(status: Status | undefined): void {
    const others = status?.items.filter(({ source }) => source !== 'manual') ?? [];
    for (const [item, field] of this.#fields) {
      field.disabled = others.some((other) => other.item === item);
    }
    const hint = this.#watch.maySteer
      ? hintOf(others)
      : 'The token of this page may look, and change nothing. One of the scope console or control may.';
    this.#hint.hidden = hint === '';
    setText(this.#hint, hint);
    setText(this.#link, status?.link.state === 'down' ? 'Bring the link up' : 'Take the link down');
    this.#showSet();
  }

  /** What the sensors have last said. */
  #showSet(): void {
    const { observed } = this.#watch;
    const rate = observed.latest('heart_rate')?.values['hrm/heart_rate'];
    this.#wrist.setAttribute('aria-pressed', String(rate !== undefined && rate < 0));
    const activity = observed.latest('activity')?.values['activity/status'];
    const names = ['other', 'still', 'walking', 'running'];
    this.#activities.forEach((button, index) => {
      const isSo = activity !== undefined && names[activity] === ACTIVITIES[index];
      button.setAttribute('aria-pressed', String(isSo));
    });
  }
}

/** How the items that cannot be set become ones that can. */
function hintOf(others: readonly Item[]): string {
  if (others.length === 0) {
    return '';
  }
  const sources = [...new Set(others.map(({ source }) => source))];
  const names = others.map(({ item }) => item.replace('_', ' ')).join(', ');
  const keys = others.map(({ item }) => `${item}=manual`).join(', ');
  return (
    `Source of ${names}: ${sources.join(', ')}. Only the source manual is set by hand: ${keys} in section [sensors] of ` +
    'platform.conf, and a service that is started anew.'
  );
}
