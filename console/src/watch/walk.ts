const LONGEST_MS = 2000;
const MINUTE_MS = 60_000;

/** Whole steps at a cadence. */
export class Walk {
  /** What is left of a step, in steps times milliseconds a minute: whole numbers do not drift. */
  #due = 0;
  #last: number;

  /** @param now - in milliseconds */
  constructor(now: number) {
    this.#last = now;
  }

  /** The steps since the last call. A page that slept does not run to catch up. */
  stepsUntil(now: number, perMinute: number): number {
    this.#due += perMinute * Math.min(now - this.#last, LONGEST_MS);
    this.#last = now;
    const whole = Math.floor(this.#due / MINUTE_MS);
    this.#due -= whole * MINUTE_MS;
    return whole;
  }
}
