import { beforeEach, describe, expect, it } from 'vitest';

import { withChecksum } from '../src/ledger-text.js';
import { namedZone, StepLedger, systemZone, type DaySteps, type ZoneOffset } from '../src/index.js';
import { exchanges, ledgers, type LedgerEvent } from './vectors.js';

const HOUR = 3600;
const DAY = 24 * HOUR;
const TODAY = '2026-03-14';
const TOMORROW = '2026-03-15';
const MIDNIGHT = Date.parse(TODAY) / 1000;
// Berlin's clocks: two hours ahead from the 29th, 01:00 UTC, on.
const SUMMER_TIME = MIDNIGHT + 15 * DAY + HOUR;

function utc(): number {
  return 0;
}

describe('StepLedger', () => {
  let ledger: StepLedger;
  let now: number;
  let watchIsAhead: number;

  beforeEach(() => {
    ledger = new StepLedger(utc);
    now = MIDNIGHT + 12 * HOUR;
    watchIsAhead = 0;
  });

  /** A total that arrives at a time, from a watch whose clock is right unless said. */
  function takeAt(at: number, value: number): void {
    now = at;
    ledger.take({ value, watchTime: at + watchIsAhead, at: 1000 * at });
  }

  /** Totals that arrive a second apart. */
  function take(...values: number[]): void {
    for (const value of values) {
      takeAt(now + 1, value);
    }
  }

  function takeWithoutTime(value: number): void {
    now += 1;
    ledger.take({ value, at: 1000 * now });
  }

  function day(date: string): DaySteps {
    const found = ledger.day(date);
    if (!found) {
      throw new Error(`there is no ${date}`);
    }
    return found;
  }

  function expectSteps(steps: number, isExact: boolean, date = TODAY): void {
    expect(day(date)).toMatchObject({ steps, isExact });
  }

  it('takes the differences of totals for the count', () => {
    take(0);
    expect(ledger.days).toEqual([]);
    take(0);
    expectSteps(0, true);
    take(10);
    expectSteps(10, true);
    take(35);
    expectSteps(25, true);
    take(60); // asked for
    expectSteps(25, true);
    expect(ledger.wantsQuestion).toBe(false);
  });

  it('begins a day that was not followed with the first count', () => {
    take(5000);
    expect(ledger.wantsQuestion).toBe(true);
    take(5070);
    expectSteps(0, true);
    take(5150);
    expectSteps(10, true);
    expect(day(TODAY)).toMatchObject({
      fromMidnight: false,
      since: 1000 * (now - 1),
      until: 1000 * now,
    });
  });

  it('makes up for missed totals by two in a row', () => {
    take(0, 10);
    ledger.missed();
    take(501501); // no count
    expectSteps(0, true);
    expect(ledger.wantsQuestion).toBe(true);
    take(502502);
    expectSteps(991, true);
  });

  it('loses nothing on a link to the same run of the service', () => {
    ledger.connected('17:4711');
    take(0, 10);
    ledger.connected('17:4711');
    take(100, 130);
    expectSteps(20, true);
    ledger.connected('18:4900');
    take(230, 270);
    expectSteps(30, false);
  });

  it('knows that a link to an unknown run may hide a restart', () => {
    take(0, 10);
    ledger.connected();
    take(100);
    expectSteps(0, true); // up to the loss
    take(130);
    expectSteps(20, false);
  });

  it('takes no name of a run that could not be stored', () => {
    ledger.connected('a b');
    take(0, 10);
    ledger.connected('a b');
    take(100, 130);
    expectSteps(20, false);
  });

  it('takes a fall of the count for a new subscription, whose steps are all new', () => {
    take(0, 0, 70);
    ledger.connected();
    take(70, 82);
    expectSteps(82, false);
    take(95);
    expectSteps(83, false);
  });

  it("sees the watch's midnight in the total", () => {
    now = MIDNIGHT + DAY - 60;
    take(150, 210, 280); // a count of 70
    takeAt(MIDNIGHT + DAY + 120, 80);
    expectSteps(10, true, TOMORROW);
    expect(day(TOMORROW)).toMatchObject({ fromMidnight: true, since: 1000 * (MIDNIGHT + DAY) });
    expectSteps(10, true);
  });

  it('wants to ask about a midnight that the total does not show', () => {
    now = MIDNIGHT + 23 * HOUR;
    take(0, 10);
    takeAt(MIDNIGHT + 25 * HOUR, 300); // the whole count, or 290
    expectSteps(280, false, TOMORROW);
    expect(ledger.wantsQuestion).toBe(true);
    take(600);
    expectSteps(290, true, TOMORROW);
  });

  it('takes the midnight of a watch that is hours ahead for no day of the phone', () => {
    watchIsAhead = 5 * HOUR;
    now = MIDNIGHT + 19 * HOUR - 60;
    take(150, 210, 280);
    takeAt(MIDNIGHT + 19 * HOUR + 60, 90);
    expectSteps(30, true);
    takeAt(MIDNIGHT + DAY, 190);
    expectSteps(30, true);
    expectSteps(10, true, TOMORROW);
  });

  it('sees the midnight of a watch in another zone one reading late', () => {
    take(0, 10, 30, 50); // a count of 20
    take(60); // a count of 60 that the zone does not tell
    expect(ledger.wantsQuestion).toBe(true);
    expectSteps(10, false);
    take(120);
    expectSteps(50, false);
  });

  it('follows summer time', () => {
    ledger = new StepLedger(namedZone('Europe/Berlin'));
    takeAt(SUMMER_TIME - 3 * HOUR, 0); // 23:00
    takeAt(SUMMER_TIME - 2 * HOUR - 1, 100);
    takeAt(SUMMER_TIME - 2 * HOUR, 101);
    takeAt(SUMMER_TIME + 21 * HOUR - 1, 211);
    takeAt(SUMMER_TIME + 21 * HOUR, 120);
    expect(day('2026-03-29')).toMatchObject({ steps: 10, since: 1000 * (SUMMER_TIME - 2 * HOUR) });
    expect(day('2026-03-30')).toMatchObject({ steps: 10, since: 1000 * (SUMMER_TIME + 21 * HOUR) });
  });

  it('counts steps in a gap around midnight for no day', () => {
    ledger.connected('a');
    take(0, 10);
    ledger.connected('a');
    now = MIDNIGHT + 32 * HOUR;
    take(1000, 2000);
    expectSteps(0, true);
    expectSteps(0, true, TOMORROW);
    expect(day(TOMORROW).fromMidnight).toBe(false);
  });

  it('is told of a pedometer that begins anew', () => {
    take(0, 0, 50, 100);
    takeWithoutTime(100);
    takeWithoutTime(100);
    expectSteps(50, false);
    take(20); // as after midnight
    expectSteps(70, false);
    take(45);
    expectSteps(75, false);
  });

  it('has a lower bound beyond the room of a float', () => {
    take(16777190, 16777200, 16777210);
    expectSteps(0, true);
    take(16777222); // 12, give or take 1
    expectSteps(1, false);
    take(16777236);
    expectSteps(2, false);
    takeAt(MIDNIGHT + DAY, 13); // the watch's new day
    expectSteps(0, false, TOMORROW);
  });

  it('goes on below zero', () => {
    take(2147483648, -2147482624); // 1024 more, give or take 192
    take(-2147481600, -2147480320); // 1280, give or take 128
    expectSteps(0, false);
    take(-2147478272); // 2048
    expectSteps(704, false);
  });

  it.each([1.5, 4294967296, 16777217, NaN])(
    'takes %d, which no watch sends, for missed',
    (value) => {
      take(0, 10, value);
      expect(ledger.wantsQuestion).toBe(true);
      take(100, 125);
      expectSteps(15, true);
    },
  );

  it('has lower bounds when the clock of the phone goes back', () => {
    take(0, 0);
    takeAt(MIDNIGHT + 36 * HOUR, 10);
    expectSteps(10, true, TOMORROW);
    watchIsAhead = DAY;
    takeAt(MIDNIGHT + 12 * HOUR, 22);
    expectSteps(2, false);
    expectSteps(10, true, TOMORROW);
  });

  it('keeps the latest days', () => {
    take(0);
    for (let i = 0; i < 40; ++i) {
      takeAt(MIDNIGHT + 12 * HOUR + i * DAY, 0);
    }
    expect(ledger.days.map(({ date }) => date)).toHaveLength(StepLedger.MAX_DAYS);
    expect(ledger.days.at(-1)?.date).toBe('2026-04-22');
    expect(StepLedger.restore(ledger.save(), utc).days).toEqual(ledger.days);
  });

  it('goes on in the afternoon with the steps of the morning', () => {
    ledger.connected('17:4711');
    take(0, 0, 1000);
    ledger = StepLedger.restore(ledger.save(), utc);
    expectSteps(1000, true);
    ledger.connected('17:4711');
    take(3000, 5000);
    expectSteps(2000, true);
  });

  it('counts no step twice from an old text', () => {
    ledger.connected('17:4711');
    take(0, 0, 1000);
    const old = ledger.save();
    take(2500); // a count of 1500
    ledger = StepLedger.restore(old, utc);
    ledger.connected('17:4711');
    take(4000, 5500);
    expectSteps(1500, true);
  });

  // The text of the ledger in C++, from its own test.
  const STORED =
    'parvane-steps 1\n' +
    'day 2026-03-14 15 1773489602000 1773489603000 0 1 0\n' +
    'count 2026-03-14 10 10 25 25 17:4711\n' +
    'sum 36ea3b5d7b7f347d\n';

  it('writes the text that the ledger in C++ writes', () => {
    ledger.connected('17:4711');
    take(0, 10, 35);
    expect(ledger.save()).toBe(STORED);
  });

  it('goes on with the text of the ledger in C++', () => {
    ledger = StepLedger.restore(STORED, utc);
    expect(ledger.save()).toBe(STORED);
    ledger.connected('17:4711');
    take(60, 90);
    expectSteps(20, true);
  });

  it('tells a damaged text from one of another version', () => {
    for (let i = 0; i < STORED.length; ++i) {
      const changed = String.fromCharCode(STORED.charCodeAt(i) ^ 1);
      const damaged = STORED.slice(0, i) + changed + STORED.slice(i + 1);
      expect(() => StepLedger.restore(damaged, utc), damaged).toThrow(/^it is /);
      expect(() => StepLedger.restore(STORED.slice(0, i), utc)).toThrow(/^it is /);
    }
    expect(() => StepLedger.restore(`${STORED}\n`, utc)).toThrow('it is damaged');
    expect(() => StepLedger.restore(withChecksum('parvane-steps 2\n'), utc)).toThrow(
      'it is of another version than 1',
    );
  });

  const HEAD = 'parvane-steps 1\n';
  const LINE = 'day 2026-03-14 15 1000 2000 0 1 0\n';

  it.each([HEAD, HEAD + LINE])('restores %j', (body) => {
    expect(StepLedger.restore(withChecksum(body), utc).save()).toBe(withChecksum(body));
  });

  it.each([
    'day 2026-02-30 15 1000 2000 0 1 0\n',
    'day 2026-03-14 -1 1000 2000 0 1 0\n',
    'day 2026-03-14 15 1000 2000 0 1 1\n',
    'count 2026-03-14 10 10 25 25 -\n',
    `${LINE}count 2026-03-14 11 10 25 25 -\n`,
    `${LINE}count 2026-03-14 10 10 26 26 -\n`,
    LINE + LINE,
    `day 2026-03-15 15 1000 2000 0 1 0\n${LINE}`,
  ])('finds %j to contradict itself', (body) => {
    expect(() => StepLedger.restore(withChecksum(HEAD + body), utc)).toThrow('it is damaged');
  });
});

describe('the steps of each exchange are those walked', () => {
  const counting = exchanges().filter(({ events }) =>
    events.some(({ walked }) => walked !== undefined),
  );
  it.each(counting)('$name', ({ begins, events }) => {
    const ledger = new StepLedger(utc);
    for (const event of events) {
      const { packet } = event;
      if (event.link === 'up') {
        ledger.connected();
      } else if (event.from === 'watch' && packet?.kind === 'reading' && packet['sensor'] === 2) {
        if (event.count === undefined) {
          ledger.missed(); // a total that does not tell its count follows something that was missed
        }
        const at = 1000 * begins + event.at_ms;
        ledger.take({ value: Number(packet['value']), watchTime: Math.floor(at / 1000), at });
      }
      if (event.walked !== undefined) {
        expect(ledger.days.reduce((sum, { steps }) => sum + steps, 0)).toBe(event.walked);
      }
    }
  });

  it('there are some', () => {
    expect(counting.length).toBeGreaterThan(2);
  });
});

/** The ledger after the event. */
function enter(ledger: StepLedger, event: LedgerEvent, zone: ZoneOffset): StepLedger {
  if (event.restored) {
    return StepLedger.restore(ledger.save(), zone);
  }
  if (event.link !== undefined) {
    ledger.connected(event.link);
  } else if (event.missed) {
    ledger.missed();
  } else {
    const { total = NaN, watch_s: watchTime, at_ms: at = NaN } = event;
    ledger.take({ value: total, watchTime: watchTime ?? undefined, at });
  }
  return ledger;
}

describe('each ledger is stored as it stands', () => {
  it.each(ledgers())('$name', ({ zone: changes, events, text }) => {
    const zone: ZoneOffset = (at) => changes.filter(([from]) => from <= at).at(-1)?.[1] ?? 0;
    let ledger = new StepLedger(zone);
    for (const event of events) {
      ledger = enter(ledger, event, zone);
      expect(ledger.wantsQuestion, JSON.stringify(event)).toBe(event.unsure);
    }
    const stored = text.map((line) => `${line}\n`).join('');
    expect(ledger.save()).toBe(stored);
    expect(StepLedger.restore(stored, zone).save()).toBe(stored);
  });
});

describe('zones', () => {
  it('a named one has its summer time', () => {
    const berlin = namedZone('Europe/Berlin');
    expect([berlin(SUMMER_TIME - 1), berlin(SUMMER_TIME)]).toEqual([HOUR, 2 * HOUR]);
    expect(namedZone('Asia/Kolkata')(0)).toBe(5.5 * HOUR);
    expect(namedZone('America/New_York')(-0.5)).toBe(-5 * HOUR);
  });

  it('one that nobody knows is an error', () => {
    expect(() => namedZone('Europe/Nowhere')).toThrow(RangeError);
  });

  it("the system's is that of its clock", () => {
    const { timeZone } = Intl.DateTimeFormat().resolvedOptions();
    expect(systemZone(SUMMER_TIME)).toBe(namedZone(timeZone)(SUMMER_TIME));
  });
});
