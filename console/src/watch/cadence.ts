import { ItemReadings } from '../store/item-readings.js';
import type { Observed } from '../store/observed.js';

/** The name of the value in {@link Cadence.readings}. */
export const CADENCE = 'cadence';

const STEPS = 'pedometer/total_steps';
const SPAN_S = 10;

/** Steps a minute, which no sensor tells: by how much the counter has grown in ten seconds. */
export class Cadence {
  readonly readings = new ItemReadings();
  readonly #pedometer: ItemReadings;
  readonly #end: () => void;

  constructor(observed: Observed) {
    this.#pedometer = observed.of('pedometer');
    for (let index = 0; index < this.#pedometer.length; index += 1) {
      this.#add(index);
    }
    let seen = observed.latest('pedometer');
    this.#end = observed.readings.listen(() => {
      const latest = observed.latest('pedometer');
      if (latest !== seen) {
        seen = latest;
        this.#add(this.#pedometer.length - 1);
      }
    });
  }

  close(): void {
    this.#end();
  }

  #add(index: number): void {
    const time = this.#pedometer.times[index];
    const steps = this.#pedometer.column(STEPS);
    if (time !== undefined && steps) {
      this.readings.add(time, {
        [CADENCE]: cadenceAt(this.#pedometer.times, steps, index),
      });
    }
  }
}

/** Of one reading; NaN where there is none before it since the counter began anew. */
export function cadenceAt(times: Float64Array, steps: Float64Array, index: number): number {
  const now = times[index] ?? NaN;
  const count = steps[index] ?? NaN;
  let first = index;
  while (first > 0) {
    const isLonger = now - (times[first - 1] ?? 0) > SPAN_S;
    const isDown = !((steps[first - 1] ?? NaN) <= (steps[first] ?? NaN));
    if (isDown || (isLonger && first < index)) {
      break;
    }
    first -= 1;
  }
  const seconds = now - (times[first] ?? NaN);
  return seconds > 0 ? (60 * (count - (steps[first] ?? NaN))) / seconds : NaN;
}
