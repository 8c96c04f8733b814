import { Sensor, type SessionEvent } from '@parvane/client';

import { h, setText, svg } from '../dom.js';
import { errorText } from '../texts.js';
import type { Phone } from './phone.js';
import type { Part } from './view.js';

const MEASURING_MS = 15_000;
const REFRESH_MS = 200;

/** A heart rate is measured for 15 seconds: a ring that fills meanwhile, and what came of it. */
export class HeartCard implements Part {
  readonly element: HTMLElement;
  readonly #phone: Phone;
  readonly #ring = svg('circle', { class: 'ring-on', cx: 50, cy: 50, r: 44, pathLength: 100 });
  readonly #number = h('strong', { class: 'ring-number' }, '–');
  readonly #unit = h('span', { class: 'soft' }, 'bpm');
  readonly #result = h('p', { class: 'result', role: 'status' });
  readonly #button = h('button', { class: 'main', id: 'measure-heart' }, 'Measure heart rate');
  readonly #timer: ReturnType<typeof setInterval>;
  readonly #unlisten: () => void;
  #since: number | undefined;
  #problem = '';

  constructor(phone: Phone) {
    this.#phone = phone;
    this.#button.addEventListener('click', () => {
      void this.#measure();
    });
    const ring = svg(
      'svg',
      { viewBox: '0 0 100 100', 'aria-hidden': 'true' },
      svg('circle', { class: 'ring-off', cx: 50, cy: 50, r: 44 }),
      this.#ring,
    );
    this.element = h(
      'section',
      { class: 'card', id: 'heart' },
      h('h2', {}, 'Heart rate'),
      h('div', { class: 'ring' }, ring, h('div', { class: 'ring-text' }, this.#number, this.#unit)),
      this.#result,
      this.#button,
      h('p', { class: 'soft small' }, 'The watch measures for 15 seconds, and answers once.'),
    );
    this.#timer = setInterval(() => {
      this.#refresh();
    }, REFRESH_MS);
    this.#unlisten = phone.event.listen((event) => {
      this.#take(event);
    });
  }

  close(): void {
    clearInterval(this.#timer);
    this.#unlisten();
  }

  async #measure(): Promise<void> {
    const { watch } = this.#phone;
    if (!watch) {
      this.#problem = 'this page is not the phone';
      this.#refresh();
      return;
    }
    this.#problem = '';
    this.#since = performance.now();
    this.#button.disabled = true;
    this.#refresh();
    try {
      await watch.measure(Sensor.HeartRate);
    } catch (error) {
      this.#problem = errorText(error);
    }
    this.#since = undefined;
    this.#button.disabled = false;
    this.#refresh();
  }

  #take(event: SessionEvent | undefined): void {
    if (event?.kind === 'reading' && event.reading.sensor === Sensor.HeartRate) {
      this.#problem = '';
    }
    this.#refresh();
  }

  #refresh(): void {
    const seen = this.#phone.watch?.latest(Sensor.HeartRate);
    const share = this.#since === undefined ? 0 : (performance.now() - this.#since) / MEASURING_MS;
    this.#ring.style.strokeDashoffset = String(100 * (1 - Math.min(share, 1)));
    this.element.classList.toggle('busy', this.#since !== undefined);
    if (this.#since !== undefined) {
      const left = Math.max(Math.ceil(15 * (1 - share)), 0);
      setText(this.#number, `${left} s`);
      setText(this.#unit, 'to go');
      setText(this.#result, 'Measuring …');
      return;
    }
    setText(this.#number, seen?.isMeasurement === true ? String(seen.value) : '–');
    setText(this.#unit, 'bpm');
    const text = seen?.text(Date.now()) ?? 'not measured yet';
    setText(this.#result, this.#problem === '' ? text : `Not measured: ${this.#problem}.`);
  }
}
