import { Sensor, type SessionEvent } from '@parvane/client';

import { h, setText } from '../dom.js';
import { ageText, timeText } from '../texts.js';
import type { Phone } from './phone.js';
import type { Part } from './view.js';

const LEAST_MS = 60_000;
const MOST_MS = 10 * 60_000;
const REFRESH_MS = 1000;
const MOST = 1000;
const NAMES = ['still or other', 'walking', 'running'];

interface Stretch {
  readonly activity: number;
  readonly since: number;
  /** Undefined: it is so still. */
  until?: number;
}

/** What the watch said about the activity in the last minutes, ten at most, as a band. */
export class ActivityBand implements Part {
  readonly element: HTMLElement;
  readonly #band = h('div', { class: 'band', role: 'img' });
  readonly #now = h('p', { class: 'result', role: 'status' }, 'not told yet');
  readonly #begin = h('span', {});
  readonly #stretches: Stretch[] = [];
  readonly #end: () => void;

  constructor(phone: Phone) {
    this.element = h(
      'section',
      { class: 'card', id: 'activity' },
      h('h2', {}, 'Activity'),
      this.#now,
      this.#band,
      h('p', { class: 'soft small spread' }, this.#begin, h('span', {}, 'now')),
      h(
        'p',
        { class: 'small legend' },
        ...NAMES.map((name, activity) =>
          h('span', {}, h('span', { class: `key activity-${activity}` }), name),
        ),
      ),
    );
    const timer = setInterval(() => {
      this.#draw();
    }, REFRESH_MS);
    const unlisten = phone.event.listen((event) => {
      this.#take(event);
    });
    this.#end = () => {
      clearInterval(timer);
      unlisten();
    };
    this.#draw();
  }

  close(): void {
    this.#end();
  }

  #take(event: SessionEvent | undefined): void {
    const last = this.#stretches.at(-1);
    if (event?.kind === 'lost' && last) {
      last.until ??= Date.now();
    } else if (event?.kind === 'reading' && event.reading.sensor === Sensor.Activity) {
      const { value } = event.reading;
      setText(
        this.#now,
        `${NAMES[value] ?? `activity ${value}`}, since ${timeText(event.observation.at)}`,
      );
      if (last?.activity !== value || last.until !== undefined) {
        if (last) {
          last.until ??= event.observation.at;
        }
        this.#stretches.push({ activity: value, since: event.observation.at });
        this.#stretches.splice(0, this.#stretches.length - MOST);
      }
    } else {
      return;
    }
    this.#draw();
  }

  #draw(): void {
    const now = Date.now();
    const told = now - (this.#stretches[0]?.since ?? now);
    const length = Math.min(Math.max(told, LEAST_MS), MOST_MS);
    const from = now - length;
    const seen = this.#stretches.filter(({ until = now }) => until > from);
    this.#band.replaceChildren(
      ...seen.map(({ activity, since, until = now }) => {
        const begin = Math.max(since, from);
        const part = h('span', { class: `activity-${activity}`, title: NAMES[activity] ?? '' });
        part.style.left = `${(100 * (begin - from)) / length}%`;
        part.style.width = `${(100 * (until - begin)) / length}%`;
        return part;
      }),
    );
    const texts = seen.map(
      ({ activity, since }) => `${NAMES[activity] ?? activity} from ${timeText(since)}`,
    );
    this.#band.setAttribute('aria-label', texts.length > 0 ? texts.join(', ') : 'nothing told yet');
    setText(this.#begin, ageText(length));
  }
}
