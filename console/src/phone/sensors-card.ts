import { Sensor, type SensorEntry, type SessionEvent } from '@parvane/client';

import type { App } from '../app.js';
import { h, setText } from '../dom.js';
import { errorText, numberText } from '../texts.js';
import type { Phone } from './phone.js';
import type { Part } from './view.js';

const REFRESH_MS = 1000;
const KINDS: readonly { readonly sensor: number; readonly name: string; readonly unit: string }[] =
  [
    { sensor: Sensor.HeartRate, name: 'Heart rate', unit: 'bpm' },
    { sensor: Sensor.WearState, name: 'Worn state', unit: '0 or 1' },
    { sensor: Sensor.Activity, name: 'Activity', unit: '0 to 2' },
    { sensor: Sensor.Pedometer, name: 'Steps', unit: 'steps' },
  ];

interface Row {
  readonly sensor: number;
  readonly range: HTMLElement;
  readonly latest: HTMLElement;
  readonly follow: HTMLButtonElement;
}

/** The sensors that the watch has told of, with a button for each request. */
export class SensorsCard implements Part {
  readonly element: HTMLElement;
  readonly #phone: Phone;
  readonly #app: App;
  readonly #address = h('span', { class: 'soft' });
  readonly #rows: readonly Row[];
  readonly #followed = new Set<number>([Sensor.Activity, Sensor.Pedometer]);
  readonly #end: () => void;

  constructor(phone: Phone, app: App) {
    this.#phone = phone;
    this.#app = app;
    this.#rows = KINDS.map(({ sensor }) => ({
      sensor,
      range: h('td', {}, '–'),
      latest: h('td', { class: 'latest' }, '–'),
      follow: h('button', {}),
    }));
    this.element = h(
      'section',
      { class: 'card wide', id: 'sensors' },
      h('h2', {}, 'Sensors of the watch ', this.#address),
      h(
        'div',
        { class: 'scroll' },
        h(
          'table',
          {},
          h(
            'thead',
            {},
            h(
              'tr',
              {},
              ...['Sensor', 'Range', 'Latest reading', 'Requests'].map((text) =>
                h('th', { scope: 'col' }, text),
              ),
            ),
          ),
          h('tbody', {}, ...this.#rows.map((row, index) => this.#rowElement(row, index))),
        ),
      ),
      h(
        'button',
        {
          id: 'list',
          onclick: () =>
            void this.#do(() => this.#phone.watch?.list(), 'The watch has told its sensors.'),
        },
        'List sensors',
      ),
    );
    const unlisten = [
      phone.sensors.listen((list) => {
        setText(this.#address, list ? (list.header.address ?? 'without an address') : '');
        for (const row of this.#rows) {
          setText(row.range, rangeText(list?.entries.find(({ sensor }) => sensor === row.sensor)));
        }
      }),
      phone.event.listen((event) => {
        this.#take(event);
      }),
      phone.state.listen(({ kind }) => {
        if (kind === 'off') {
          this.#followed.clear();
          this.#followed.add(Sensor.Activity).add(Sensor.Pedometer); // as the next link begins
        }
        this.#refresh();
      }),
    ];
    const timer = setInterval(() => {
      this.#refresh();
    }, REFRESH_MS);
    this.#end = () => {
      clearInterval(timer);
      unlisten.forEach((end) => {
        end();
      });
    };
  }

  close(): void {
    this.#end();
  }

  #rowElement({ sensor, range, latest, follow }: Row, index: number): HTMLElement {
    const name = KINDS[index]?.name ?? '';
    follow.addEventListener('click', () => {
      void this.#toggle(sensor);
    });
    follow.id = `follow-${sensor}`;
    const measure = h('button', {
      id: `measure-${sensor}`,
      'aria-label': `Measure ${name.toLowerCase()}`,
      onclick: () => void this.#measure(sensor, measure),
    });
    setText(measure, 'Measure');
    return h(
      'tr',
      {},
      h('th', { scope: 'row' }, name),
      range,
      latest,
      h('td', { class: 'row' }, measure, follow),
    );
  }

  /** What is being measured already is not asked for again: the button waits for that answer. */
  async #measure(sensor: number, button: HTMLButtonElement): Promise<void> {
    button.disabled = true;
    setText(button, 'Measuring …');
    await this.#do(() => this.#phone.watch?.measure(sensor));
    setText(button, 'Measure');
    button.disabled = false;
  }

  async #toggle(sensor: number): Promise<void> {
    const { watch } = this.#phone;
    if (!this.#followed.has(sensor)) {
      this.#followed.add(sensor);
      this.#refresh();
      watch?.follow(sensor);
      return;
    }
    this.#followed.delete(sensor);
    this.#refresh();
    await this.#do(() => watch?.stop(sensor), 'The watch has acknowledged the stop.');
  }

  async #do(ask: () => Promise<unknown> | undefined, done = ''): Promise<void> {
    try {
      const asked = ask();
      if (!asked) {
        throw new Error('this page is not the phone');
      }
      await asked;
      if (done !== '') {
        this.#app.say(done);
      }
    } catch (error) {
      this.#app.say(`Not done: ${errorText(error)}`, true);
    }
  }

  #take(event: SessionEvent | undefined): void {
    if (event?.kind === 'failed' && event.request === 0 && event.sensor !== undefined) {
      this.#app.say(`Not followed for now: ${event.why.text}`, true);
    }
    this.#refresh();
  }

  #refresh(): void {
    for (const { sensor, latest, follow } of this.#rows) {
      const seen = this.#phone.watch?.latest(sensor);
      const text = seen?.text(Date.now());
      setText(latest, text ?? '–');
      const isFollowed = this.#followed.has(sensor);
      setText(follow, isFollowed ? 'Stop' : 'Follow');
      const name = KINDS.find((kind) => kind.sensor === sensor)?.name.toLowerCase() ?? '';
      follow.setAttribute('aria-label', `${isFollowed ? 'Stop' : 'Follow'} ${name}`);
    }
  }
}

function rangeText(entry: SensorEntry | undefined): string {
  if (!entry) {
    return '–';
  }
  const unit = KINDS.find(({ sensor }) => sensor === entry.sensor)?.unit ?? '';
  const step = entry.resolution > 0 ? `, in steps of ${entry.resolution}` : '';
  const range = `${numberText(entry.smallest)} to ${numberText(entry.largest)}`;
  const every = `at least ${entry.delayMs / 1000} s apart`;
  return `${range}${unit.includes('to') || unit.includes('or') ? '' : ` ${unit}`}${step}, ${every}`;
}
