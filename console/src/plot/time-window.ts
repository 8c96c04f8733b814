import { State } from '../state.js';

/** Which stretch of time is shown: the latest seconds, moving on, or one that stands still. Seconds since 1970. */
export type Span =
  | { readonly kind: 'live'; readonly seconds: number }
  | { readonly kind: 'fixed'; readonly from: number; readonly to: number };

const SHORTEST_S = 2;
const LONGEST_S = 3600;

/** The stretch of time that several plots share. */
export class TimeWindow {
  readonly span: State<Span>;
  readonly #now: () => number;
  readonly #first: State<Span>;

  /** @param now - by the clock of the readings, in seconds since 1970 */
  constructor(now: () => number, seconds = 60) {
    this.span = new State<Span>({ kind: 'live', seconds });
    this.#first = new State(this.span.value);
    this.#now = now;
  }

  get from(): number {
    const { value } = this.span;
    return value.kind === 'live' ? this.to - value.seconds : value.from;
  }

  get to(): number {
    const { value } = this.span;
    return value.kind === 'live' ? this.#now() : value.to;
  }

  get isLive(): boolean {
    return this.span.value.kind === 'live';
  }

  /** Moves on with time again; with so many seconds, if they are given. */
  goLive(seconds?: number): void {
    const { value } = this.span;
    const length =
      value.kind === 'live' ? value.seconds : Math.min(value.to - value.from, LONGEST_S);
    this.span.set({ kind: 'live', seconds: seconds ?? length });
  }

  /** As it was at first. */
  reset(): void {
    this.span.set(this.#first.value);
  }

  /** By so many seconds; later is positive. What would go beyond now is live again. */
  pan(seconds: number): void {
    this.show(this.from + seconds, this.to + seconds);
  }

  /** Around a point of time: a factor above 1 shows more. Live stays live. */
  zoom(factor: number, around = this.to): void {
    const { from, to } = this;
    const length = Math.min(Math.max((to - from) * factor, SHORTEST_S), LONGEST_S);
    if (this.isLive) {
      this.span.set({ kind: 'live', seconds: length });
    } else {
      const share = (around - from) / (to - from);
      this.show(around - share * length, around + (1 - share) * length);
    }
  }

  show(from: number, to: number): void {
    if (to >= this.#now()) {
      this.goLive(Math.min(to - from, LONGEST_S));
    } else {
      this.span.set({ kind: 'fixed', from, to });
    }
  }
}
