import { Sensor, type Observation } from '@parvane/client';

import type { App } from '../app.js';
import { NOT_WORN, type ItemName } from '../control/messages.js';
import { h, setText } from '../dom.js';
import { onNextFrame } from '../plot/frames.js';
import { LivePlot } from '../plot/live-plot.js';
import { TimeWindow } from '../plot/time-window.js';
import { ageText, numberText, sensorActivityText } from '../texts.js';

interface Told {
  readonly value: string;
  readonly unit: string;
  /** Undefined: nothing has been told. */
  readonly ageMs: number | undefined;
  readonly note?: string;
}

const NOTHING: Told = { value: '–', unit: '', ageMs: undefined };
const REFRESH_MS = 250;
const STALE_MS = 30_000;

/** A number with its name, unit and age. */
class Tile {
  readonly element: HTMLElement;
  readonly #value = h('span', { class: 'value' });
  readonly #unit = h('span', { class: 'unit' });
  readonly #age = h('span', { class: 'age' });

  constructor(id: string, name: string, extra?: HTMLElement) {
    this.element = h(
      'div',
      { class: 'tile', id: `now-${id}`, role: 'group', 'aria-label': name },
      h('span', { class: 'name' }, name),
      h('span', { class: 'reading' }, this.#value, ' ', this.#unit),
      this.#age,
      extra,
    );
  }

  show({ value, unit, ageMs, note }: Told): void {
    setText(this.#value, value);
    setText(this.#unit, unit);
    const age = ageMs === undefined ? 'no reading yet' : ageText(ageMs);
    setText(this.#age, note === undefined ? age : `${age}, ${note}`);
    this.element.classList.toggle('old', ageMs === undefined || ageMs > STALE_MS);
  }
}

/** What the watch senses now, above both views: as its sensors say, or, where the token hides these, its phone. */
export class NowStrip {
  readonly element: HTMLElement;
  readonly #app: App;
  readonly #plot: LivePlot | undefined;
  readonly #tiles: readonly (readonly [Tile, () => Told])[];
  readonly #timer: ReturnType<typeof setInterval>;
  readonly #ends: (() => void)[] = [];

  constructor(app: App) {
    this.#app = app;
    this.#plot = this.#makePlot();
    this.#tiles = [
      [new Tile('heart', 'Heart rate', this.#plot?.element), () => this.#heart()],
      [new Tile('worn', 'Worn'), () => this.#worn()],
      [new Tile('activity', 'Activity'), () => this.#activity()],
      [new Tile('steps', 'Steps today'), () => this.#steps()],
      [new Tile('speed', 'Speed'), () => this.#speed()],
    ];
    this.element = h(
      'section',
      { class: 'now', 'aria-label': 'What the watch senses now' },
      ...this.#tiles.map(([tile]) => tile.element),
    );
    const refresh = () => {
      onNextFrame(this.#refresh);
    };
    this.#timer = setInterval(refresh, REFRESH_MS);
    if (app.watch) {
      this.#ends.push(app.watch.observed.readings.listen(refresh));
    }
    if (app.phone) {
      this.#ends.push(app.phone.event.listen(refresh));
    }
  }

  close(): void {
    clearInterval(this.#timer);
    this.#ends.forEach((end) => {
      end();
    });
    this.#plot?.close();
  }

  readonly #refresh = () => {
    for (const [tile, tell] of this.#tiles) {
      tile.show(tell());
    }
    this.#plot?.update();
  };

  #makePlot(): LivePlot | undefined {
    const { watch } = this.#app;
    if (!watch) {
      return undefined;
    }
    const { observed } = watch;
    return new LivePlot({
      title: 'Heart rate of the last minute',
      readings: observed.of('heart_rate'),
      lines: [
        {
          name: 'hrm/heart_rate',
          label: 'heart rate',
          unit: 'bpm',
          color: '--heart',
          isGap: (value) => value <= 0,
        },
      ],
      window: new TimeWindow(() => observed.now()),
      height: 52,
      isSmall: true,
      range: [60, 90],
    });
  }

  #heart(): Told {
    if (!this.#app.watch) {
      const seen = this.#seen(Sensor.HeartRate);
      const value = seen?.isMeasurement ? String(seen.value) : '–';
      return { ...ageOf(seen), value, unit: 'bpm' };
    }
    const { value, ageMs } = this.#sensed('heart_rate', 'hrm/heart_rate');
    if (value === NOT_WORN) {
      return { value: '–', unit: 'bpm', ageMs, note: 'not worn' };
    }
    return value === undefined
      ? { ...NOTHING, unit: 'bpm' }
      : { value: String(value), unit: 'bpm', ageMs };
  }

  #worn(): Told {
    const { value, ageMs } = this.#sensed('heart_rate', 'hrm/heart_rate');
    if (value !== undefined && value !== 0) {
      return { value: value === NOT_WORN ? 'no' : 'yes', unit: '', ageMs };
    }
    const seen = this.#seen(Sensor.WearState);
    return seen ? { ...ageOf(seen), value: seen.value > 0 ? 'yes' : 'no', unit: '' } : NOTHING;
  }

  #activity(): Told {
    const { value, ageMs } = this.#sensed('activity', 'activity/status');
    if (value !== undefined) {
      return { value: sensorActivityText(value), unit: '', ageMs };
    }
    const seen = this.#seen(Sensor.Activity);
    const names = ['still or other', 'walking', 'running'];
    return seen ? { ...ageOf(seen), value: names[seen.value] ?? '–', unit: '' } : NOTHING;
  }

  #steps(): Told {
    const day = this.#app.phone?.watch?.stepsToday().steps;
    if (day) {
      const value = numberText(day.steps);
      const note = day.isExact ? 'exact' : 'at least';
      return { value, unit: 'steps', ageMs: Date.now() - day.until, note };
    }
    const { value, ageMs } = this.#sensed('pedometer', 'pedometer/total_steps');
    const note = 'as the sensor counts';
    return value === undefined
      ? { ...NOTHING, unit: 'steps' }
      : { value: numberText(value), unit: 'steps', ageMs, note };
  }

  #speed(): Told {
    const { value, ageMs } = this.#sensed('pedometer', 'pedometer/speed');
    return value === undefined
      ? { ...NOTHING, unit: 'km/h' }
      : { value: numberText(value, 1), unit: 'km/h', ageMs };
  }

  #sensed(item: ItemName, name: string): { value?: number; ageMs: number | undefined } {
    const { observed } = this.#app.watch ?? {};
    const latest = observed?.latest(item);
    const value = latest?.values[name];
    if (!observed || !latest || value === undefined) {
      return { ageMs: undefined };
    }
    return { value, ageMs: 1000 * (observed.now() - latest.time) };
  }

  #seen(sensor: number): Observation | undefined {
    return this.#app.phone?.watch?.latest(sensor);
  }
}

function ageOf(seen: Observation | undefined): { ageMs: number | undefined } {
  return { ageMs: seen?.ageMs(Date.now()) };
}
