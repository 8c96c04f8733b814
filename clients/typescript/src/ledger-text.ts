/**
 * The text in which a ledger is stored.
 *
 * @module
 */
import { stepsOf, type DaySteps, type LedgerState, type Range, type Stretch } from './ledger.js';

const FIRST_LINE = 'parvane-steps 1\n';
const NO_RUN = '-';

// Numbers of up to 15 digits: beyond all steps, counts and milliseconds that there are.
const NUMBER = '(\\d{1,15})';
const DATE = '(\\d{4}-\\d\\d-\\d\\d)';
const DAY = new RegExp(`^day ${DATE} ${NUMBER} ${NUMBER} ${NUMBER} ([01]) ([01]) ([01])$`);
const COUNT = new RegExp(`^count ${DATE} ${NUMBER} ${NUMBER} ${NUMBER} ${NUMBER} (\\S+)$`);

/** `body`, which ends with a line feed, with a line that tells whether it was damaged since. */
export function withChecksum(body: string): string {
  let sum = 14695981039346656037n; // FNV-1a
  for (const byte of new TextEncoder().encode(body)) {
    sum = BigInt.asUintN(64, (sum ^ BigInt(byte)) * 1099511628211n);
  }
  return `${body}sum ${sum.toString(16).padStart(16, '0')}\n`;
}

/** The text of a ledger. */
export function writeLedger({ days, stretch, run }: LedgerState): string {
  let text = FIRST_LINE;
  for (const day of days) {
    const words = [day.date, day.steps, day.since, day.until];
    const marks = [day.fromMidnight, day.isExact, day.hasLost].map(Number);
    text += `day ${[...words, ...marks].join(' ')}\n`;
  }
  if (stretch) {
    const { date, begin, count } = stretch;
    const numbers = [begin.low, begin.high, count.low, count.high];
    text += `count ${[date, ...numbers, run === '' ? NO_RUN : run].join(' ')}\n`;
  }
  return withChecksum(text);
}

/**
 * The inverse of {@link writeLedger}.
 *
 * @throws Error for a text that is damaged or of another version; its message says which
 */
export function readLedger(text: string, maxDays: number): LedgerState {
  if (text.startsWith('parvane-steps ') && !text.startsWith(FIRST_LINE)) {
    throw new Error('it is of another version than 1');
  }
  const days: DaySteps[] = [];
  let stretch: Stretch | undefined;
  let run = '';
  for (const line of text.split('\n').slice(1, -2)) {
    const count = COUNT.exec(line);
    if (count) {
      stretch = readStretch(count);
      run = count[6] === NO_RUN ? '' : (count[6] ?? '');
    } else {
      days.push(readDay(line));
    }
  }
  const state = { days, stretch, run };
  // Whatever else may be wrong with it: it is not what this ledger is written as.
  if (!isSound(state) || days.length > maxDays || writeLedger(state) !== text) {
    throw damaged();
  }
  return state;
}

function readDay(line: string): DaySteps {
  const [, date, steps, since, until, fromMidnight, isExact, hasLost] = DAY.exec(line) ?? [];
  if (date === undefined || !isDate(date)) {
    throw damaged();
  }
  return {
    date,
    steps: Number(steps),
    since: Number(since),
    until: Number(until),
    fromMidnight: fromMidnight === '1',
    isExact: isExact === '1',
    hasLost: hasLost === '1',
  };
}

function readStretch([, date = '', ...words]: string[]): Stretch {
  const range = (low: number): Range => ({ low: Number(words[low]), high: Number(words[low + 1]) });
  return { date, begin: range(0), count: range(2) };
}

function isSound({ days, stretch }: LedgerState): boolean {
  const isInOrder = days.every((day, i) => i === 0 || (days[i - 1]?.date ?? '') < day.date);
  const isStretchSound = (of: Stretch) =>
    of.begin.low <= of.begin.high &&
    of.count.low <= of.count.high &&
    days.some(({ date, steps }) => date === of.date && stepsOf(of) <= steps);
  return (
    isInOrder &&
    !days.some((day) => day.isExact && day.hasLost) &&
    (stretch === undefined || isStretchSound(stretch))
  );
}

function isDate(text: string): boolean {
  const time = Date.parse(text);
  return !Number.isNaN(time) && new Date(time).toISOString().startsWith(text);
}

function damaged(): Error {
  return new Error('it is damaged');
}
