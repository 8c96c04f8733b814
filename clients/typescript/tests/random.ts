/** The same numbers from the same seed. */
export class Random {
  #state: number;

  constructor(seed: number) {
    this.#state = seed;
  }

  /** From `least` to `most`, both included. */
  next(least: number, most: number): number {
    this.#state = (this.#state + 0x6d2b79f5) | 0;
    let mixed = Math.imul(this.#state ^ (this.#state >>> 15), 1 | this.#state);
    mixed = (mixed + Math.imul(mixed ^ (mixed >>> 7), 61 | mixed)) ^ mixed;
    return least + Math.floor((((mixed ^ (mixed >>> 14)) >>> 0) / 2 ** 32) * (most - least + 1));
  }

  oneIn(times: number): boolean {
    return this.next(1, times) === 1;
  }
}
