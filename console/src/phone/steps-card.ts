import { Sensor } from '@parvane/client';

import { h, setText } from '../dom.js';
import { numberText, timeText } from '../texts.js';
import type { Phone } from './phone.js';
import type { Part } from './view.js';

const REFRESH_MS = 1000;

/** The steps really walked, beside the number on the wire. */
export class StepsCard implements Part {
  readonly element: HTMLElement;
  readonly #phone: Phone;
  readonly #steps = h('strong', { id: 'true-steps' }, '–');
  readonly #sure = h('span', { class: 'soft' });
  readonly #wire = h('strong', { id: 'wire-steps' }, '–');
  readonly #end: () => void;

  constructor(phone: Phone) {
    this.#phone = phone;
    this.element = h(
      'section',
      { class: 'card', id: 'steps' },
      h('h2', {}, 'Steps today'),
      h(
        'dl',
        { class: 'pair' },
        h(
          'div',
          { class: 'large' },
          h('dt', {}, 'really walked'),
          h('dd', {}, this.#steps, ' steps'),
          h('dd', {}, this.#sure),
        ),
        h(
          'div',
          {},
          h('dt', {}, 'the number on the wire'),
          h('dd', {}, this.#wire),
          h('dd', { class: 'soft' }, 'not steps'),
        ),
      ),
      h(
        'details',
        {},
        h('summary', {}, 'Why they differ'),
        h(
          'p',
          {},
          'With each reading the watch adds all steps since it turned its counter on to the total of the day, so that ',
          'the number grows faster than anybody walks. Two numbers in a row tell the truth: their difference is the ',
          'count. This page keeps the count, as every app has to.',
        ),
      ),
    );
    const refresh = () => {
      this.#refresh();
    };
    const timer = setInterval(refresh, REFRESH_MS);
    const unlisten = phone.event.listen(refresh);
    this.#end = () => {
      clearInterval(timer);
      unlisten();
    };
  }

  close(): void {
    this.#end();
  }

  #refresh(): void {
    const { watch } = this.#phone;
    const day = watch?.stepsToday().steps;
    setText(this.#steps, day ? numberText(day.steps) : '–');
    const since = day ? (day.fromMidnight ? 'since midnight' : `since ${timeText(day.since)}`) : '';
    setText(
      this.#sure,
      day ? `${day.isExact ? 'exactly' : 'at least'}, ${since}` : 'not known yet',
    );
    const seen = watch?.latest(Sensor.Pedometer);
    setText(this.#wire, seen ? numberText(seen.value) : '–');
  }
}
