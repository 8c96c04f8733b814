import type { Values } from '../control/messages.js';

/** An hour of ten readings a second, and some more. */
export const MOST_READINGS = 36_600;

/**
 * The readings of one item, the latest {@link MOST_READINGS}: columns of numbers that grow no more once they are
 * full. A value that a reading has not is NaN.
 */
export class ItemReadings {
  readonly #most: number;
  readonly #times: Float64Array;
  readonly #columns = new Map<string, Float64Array>();
  #begin = 0;
  #end = 0;

  constructor(most = MOST_READINGS) {
    this.#most = most;
    // With room for half as many again, what is old is thrown away rarely, and the rest lies in one piece.
    this.#times = new Float64Array(Math.ceil(1.5 * most));
  }

  get length(): number {
    return this.#end - this.#begin;
  }

  /** Seconds since 1970 by the watch's clock, never falling. */
  get times(): Float64Array {
    return this.#times.subarray(this.#begin, this.#end);
  }

  /** Of one value, such as "hrm/heart_rate", as many as there are {@link times}; undefined: there was none ever. */
  column(name: string): Float64Array | undefined {
    return this.#columns.get(name)?.subarray(this.#begin, this.#end);
  }

  /** The names of the values, as they have come. */
  get names(): readonly string[] {
    return [...this.#columns.keys()];
  }

  add(time: number, values: Values): void {
    if (this.#end === this.#times.length) {
      this.#moveToFront();
    }
    const last = this.length > 0 ? (this.#times[this.#end - 1] ?? time) : time;
    this.#times[this.#end] = Math.max(time, last); // the watch's clock may be set back
    for (const [name, column] of this.#columns) {
      column[this.#end] = values[name] ?? NaN;
    }
    for (const [name, value] of Object.entries(values)) {
      if (!this.#columns.has(name)) {
        const column = new Float64Array(this.#times.length).fill(NaN);
        column[this.#end] = value;
        this.#columns.set(name, column);
      }
    }
    this.#end += 1;
    this.#begin = Math.max(this.#begin, this.#end - this.#most);
  }

  /** The index of the first reading at or after that time; {@link length} when there is none. */
  indexOf(time: number): number {
    const times = this.times;
    let low = 0;
    let high = times.length;
    while (low < high) {
      const middle = (low + high) >> 1;
      if ((times[middle] ?? Infinity) < time) {
        low = middle + 1;
      } else {
        high = middle;
      }
    }
    return low;
  }

  #moveToFront(): void {
    for (const column of [this.#times, ...this.#columns.values()]) {
      column.copyWithin(0, this.#begin, this.#end);
    }
    this.#end -= this.#begin;
    this.#begin = 0;
  }
}
