/**
 * The steps really walked, from the totals on the wire. No clock, no I/O.
 *
 * @module
 */
import { readLedger, writeLedger } from './ledger-text.js';
import { localDate, type ZoneOffset } from './zone.js';

const TOTALS = 2 ** 32; // a total goes on below zero beyond half of it
const LARGEST_TOTAL = 2 ** 31; // 2,147,483,647 is rounded to it
const LAST_EXACT = 2 ** 24;
const SECONDS_PER_DAY = 86400;

/** One reading of the pedometer: the number on the wire, which is not the steps walked. */
export interface StepTotal {
  /** {@link Reading.value}: of single precision. */
  readonly value: number;
  /** By the watch's clock, in seconds since 1970-01-01 UTC; left out where the wire has no time. */
  readonly watchTime?: number | undefined;
  /** When it arrived, in milliseconds since 1970-01-01 UTC by the phone's clock. */
  readonly at: number;
}

/**
 * The steps of one local day of the phone's. A step belongs to the day on which the watch told of it:
 * those walked around midnight belong to the day of the first reading after them.
 */
export interface DaySteps {
  /** "2026-03-14". */
  readonly date: string;
  /** At least so many. */
  readonly steps: number;
  /** And no more, from {@link since} to {@link until}. */
  readonly isExact: boolean;
  /** A stretch of it was lost, so it does not become exact any more. */
  readonly hasLost: boolean;
  readonly fromMidnight: boolean;
  /** The reading that it begins with, which counts for nothing, or midnight; ms since 1970. */
  readonly since: number;
  /** The reading that it ends with, so far; ms since 1970. */
  readonly until: number;
}

/** What is known of the steps of one day. */
export interface StepsOfDay {
  /** "2026-03-14". */
  readonly date: string;
  /** Undefined: none at all. */
  readonly steps: DaySteps | undefined;
}

/** A number that rounding, or doubt, leaves open. */
export interface Range {
  readonly low: number;
  readonly high: number;
}

/** What the watch has counted since it subscribed, and what of it is of the day. */
export interface Stretch {
  readonly date: string;
  /** The count at which the day, or the subscription, began. */
  readonly begin: Range;
  readonly count: Range;
}

/** What a stored text has: the days in their order, the stretch, and the name of its run. */
export interface LedgerState {
  readonly days: readonly DaySteps[];
  readonly stretch: Stretch | undefined;
  readonly run: string;
}

interface Total {
  readonly value: number;
  readonly error: number; // at most so far off
  readonly watchTime: number | undefined;
}

const Gap = { None: 0, Missed: 1, Link: 2 } as const;
type Gap = (typeof Gap)[keyof typeof Gap];

/** How many steps a stretch has. */
export function stepsOf({ begin, count }: Stretch): number {
  return Math.max(0, count.low - begin.high);
}

/**
 * Recovers the steps really walked from the totals that the watch sends.
 *
 * The watch adds its count, the steps since it subscribed to its pedometer, to the total at each
 * reading, so the difference of two totals in a row is the count. Hand over every total of a link, in
 * order, and say what may have been missed. What a day has is never more than was walked, and all of it
 * where it says so; the rest is a lower bound: after a restart of the watch, and where the wire's float
 * has no room for each number, beyond 16,777,216. A pedometer that begins anew within a gap, and is
 * beyond its old count at the end of it, stays unseen.
 *
 * {@link save} and {@link restore} share their text with the other implementations of this project.
 */
export class StepLedger {
  /** How many days are kept, the latest ones. */
  static readonly MAX_DAYS = 32;

  readonly #zone: ZoneOffset;
  #days: DaySteps[] = [];
  #stretch: Stretch | undefined;
  #run = ''; // that #stretch is of
  #linkRun = ''; // that the link is to
  #gap: Gap = Gap.Link; // since #stretch
  #total: Total | undefined; // the last one, unless there is a gap behind it
  #isInDoubt = false; // #stretch's count may be one of two
  #hasBegunAnew = false; // the pedometer: all of the next count are new steps

  /**
   * @param zone - by which the phone's days begin, and the watch's. Where the watch has another one, its
   * midnight may be seen one reading late; never is more counted than was walked
   */
  constructor(zone: ZoneOffset) {
    this.#zone = zone;
  }

  /**
   * A link is there that was not before. What came on an earlier one does not precede what comes now.
   *
   * @param run - a name of the run of the watch's service, up to 64 printable characters without blanks.
   * Under the same name it counts on, so that nothing was lost; empty: not known
   */
  connected(run = ''): void {
    this.#linkRun = /^[!-~]{0,64}$/.test(run) ? run : '';
    this.#gap = Gap.Link;
    this.#total = undefined;
  }

  /** Totals may have been missed on this link: it was not read for too long, or one was damaged. */
  missed(): void {
    this.#gap = laterGap(this.#gap);
    this.#total = undefined;
  }

  /** A total, pushed or asked for alike. One that no watch sends counts as missed. */
  take(total: StepTotal): void {
    const now = readTotal(total);
    if (!now) {
      this.missed();
      return;
    }
    const before = this.#total;
    this.#total = now;
    if (now.watchTime === undefined) {
      // The pedometer is below where the watch subscribed: the total is told as it was.
      this.#hasBegunAnew ||= before?.value === now.value;
      this.#markLost();
      return;
    }
    const count = before && this.#countAt(before, now, now.watchTime);
    if (count) {
      this.#count(count, total.at);
    }
  }

  /** Whether the count is not known for sure: ask the watch for the steps, and then look again. */
  get wantsQuestion(): boolean {
    return this.#gap !== Gap.None || this.#isInDoubt;
  }

  /** In their order; there is none of a day on which nothing was learned. */
  get days(): readonly DaySteps[] {
    return this.#days;
  }

  /** The day of a date such as "2026-03-14"; undefined when nothing was learned on it. */
  day(date: string): DaySteps | undefined {
    return this.#days.find((day) => day.date === date);
  }

  /** The day of an instant in milliseconds since 1970, as of its last reading that told something. */
  dayOf(atMs: number): StepsOfDay {
    const date = localDate(this.#zone, atMs);
    return { date, steps: this.day(date) };
  }

  /** All of it as text: lines, the last of them a checksum. */
  save(): string {
    return writeLedger({ days: this.#days, stretch: this.#stretch, run: this.#run });
  }

  /**
   * The inverse of {@link save}. It begins without a link, and counts on from the count that it had.
   *
   * @throws Error for a text that is damaged or of another version; its message says which
   */
  static restore(text: string, zone: ZoneOffset): StepLedger {
    const ledger = new StepLedger(zone);
    const { days, stretch, run } = readLedger(text, StepLedger.MAX_DAYS);
    ledger.#days = [...days];
    ledger.#stretch = stretch;
    ledger.#run = run;
    return ledger;
  }

  /** Whether the watch has taken `now` for the first reading of a day, by its end of the day before. */
  #isNewDay(before: Total, now: number): boolean {
    // The watch has stored a reading without a time with the time 0.
    const last = before.watchTime ?? 0;
    // It reckons with the offset of the last reading, also where summer time ends in between.
    const offset = this.#zone(last);
    const begun = Math.floor((last + offset) / SECONDS_PER_DAY) * SECONDS_PER_DAY;
    return now >= begun + SECONDS_PER_DAY - offset;
  }

  /** The count at `now`; undefined where it may be anything, and the next total has to tell. */
  #countAt(before: Total, now: Total, watchTime: number): Range | undefined {
    const error = before.error + now.error;
    const grown = (now.value - before.value + TOTALS) % TOTALS;
    const added = { low: Math.max(0, grown - error), high: grown + error };
    const whole = { low: Math.max(0, now.value - now.error), high: now.value + now.error };
    const isWholePossible = whole.low <= whole.high;
    const isNewDay = isWholePossible && this.#isNewDay(before, watchTime);
    const hasTotalFallen = grown >= TOTALS / 2;
    // Within a link a count does not fall, unless the pedometer has begun anew.
    const isTooSmall =
      this.#gap === Gap.None &&
      !this.#hasBegunAnew &&
      this.#stretch !== undefined &&
      added.high < this.#stretch.count.low;

    this.#isInDoubt = false;
    if (isWholePossible && (hasTotalFallen || (isTooSmall && isNewDay))) {
      return whole;
    }
    if (hasTotalFallen || isTooSmall) {
      // A new day that the times do not tell, a pedometer that has begun anew, or no total at all.
      this.#markLost();
      this.#gap = laterGap(this.#gap);
      return undefined;
    }
    if (!isNewDay || (added.low === whole.low && added.high === whole.high)) {
      return added;
    }
    // A new day, if the watch goes by the zone: the next total tells.
    this.#isInDoubt = true;
    if (this.#gap !== Gap.None) {
      return undefined;
    }
    return { low: Math.min(added.low, whole.low), high: Math.max(added.high, whole.high) };
  }

  /** Enters the count of a reading. */
  #count(count: Range, at: number): void {
    const date = localDate(this.#zone, at);
    let stretch = this.#stretch;
    const isOtherDay = stretch?.date !== date;
    if (!stretch || isOtherDay) {
      // Of what was walked in a gap nobody knows which steps are of which day.
      const isFollowed = this.#gap === Gap.None;
      this.#hasBegunAnew &&= isFollowed;
      this.#beginDay(date, isFollowed, at);
      const begin = isFollowed && stretch ? stretch.count : count;
      stretch = { date, begin, count: begin };
    }
    const day = this.day(date) ?? emptyDay(date);
    const isOtherRun =
      this.#gap === Gap.Link && (this.#linkRun === '' || this.#linkRun !== this.#run);
    let { steps, hasLost } = day;
    if (this.#hasBegunAnew || count.high < stretch.count.low) {
      hasLost = true; // what was walked until it began anew
      steps += count.low;
      stretch = { date, begin: { low: 0, high: 0 }, count };
    } else {
      const known = stepsOf(stretch);
      const low = Math.max(count.low, stretch.count.low);
      stretch = { ...stretch, count: { low, high: count.high } };
      steps += stepsOf(stretch) - known;
      hasLost ||= isOtherRun && !isOtherDay;
    }
    const isExact = !hasLost && isOne(stretch.begin) && isOne(stretch.count);
    this.#put({ ...day, steps, hasLost, isExact, until: at });
    this.#stretch = stretch;
    this.#run = this.#linkRun;
    this.#gap = Gap.None;
    this.#hasBegunAnew = false;
  }

  #beginDay(date: string, isFollowed: boolean, at: number): void {
    const known = this.day(date);
    if (known) {
      this.#put({ ...known, hasLost: true }); // the phone's clock, or its zone, went back
      return;
    }
    let since = at;
    if (isFollowed) {
      const midnight = Date.parse(date) / 1000;
      const near = midnight - this.#zone(Math.floor(at / 1000));
      since = 1000 * (midnight - this.#zone(near));
    }
    this.#put({ ...emptyDay(date), fromMidnight: isFollowed, since });
    if (this.#days.length > StepLedger.MAX_DAYS) {
      this.#days.splice(this.#days[0]?.date === date ? 1 : 0, 1);
    }
  }

  /** Of the day that the count is of. */
  #markLost(): void {
    const { date } = this.#stretch ?? {};
    if (date !== undefined) {
      this.#put({ ...(this.day(date) ?? emptyDay(date)), hasLost: true, isExact: false });
    }
  }

  #put(day: DaySteps): void {
    const others = this.#days.filter(({ date }) => date !== day.date);
    this.#days = [...others, day].sort((a, b) => (a.date < b.date ? -1 : 1));
  }
}

function emptyDay(date: string): DaySteps {
  const nothing = { steps: 0, since: 0, until: 0 };
  return { date, ...nothing, isExact: false, hasLost: false, fromMidnight: false };
}

function isOne({ low, high }: Range): boolean {
  return low === high;
}

function laterGap(gap: Gap): Gap {
  return gap === Gap.None ? Gap.Missed : gap;
}

function readTotal({ value, watchTime }: StepTotal): Total | undefined {
  if (!(Math.abs(value) <= LARGEST_TOTAL) || Math.fround(value) !== value || value % 1 !== 0) {
    return undefined;
  }
  return { value, error: roundingError(value), watchTime };
}

/** What a float of this size may stand for, to either side. */
function roundingError(value: number): number {
  const size = Math.abs(value);
  return size < LAST_EXACT ? 0 : 2 ** (Math.floor(Math.log2(size)) - 24);
}
