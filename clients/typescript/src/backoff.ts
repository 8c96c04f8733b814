/** The delays between attempts: the first, then twice as long each time, up to the longest. In ms. */
export class Backoff {
  readonly #first: number;
  readonly #longest: number;
  #next: number;

  /** Both at least 1 ms; a `longest` below `first` counts as `first`. */
  constructor(first: number, longest: number) {
    this.#first = Math.max(first, 1);
    this.#longest = Math.max(longest, this.#first);
    this.#next = this.#first;
  }

  /** The delay before the next attempt. */
  next(): number {
    const next = this.#next;
    this.#next = Math.min(2 * next, this.#longest);
    return next;
  }

  /** Begins again with the first delay, after an attempt that went well. */
  reset(): void {
    this.#next = this.#first;
  }
}
