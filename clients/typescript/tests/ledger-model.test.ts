// The ledger against a model of the watch and its wearer: random days, of which everything is known.
import { expect, it } from 'vitest';

import { namedZone, StepLedger, type StepTotal, type ZoneOffset } from '../src/index.js';
import { Random } from './random.js';

const DAY = 86400;
const JANUARY = 1767225600;
const DAYS_OF_A_WORLD = 25; // fewer than a ledger keeps
const WORLDS = Number(process.env['PARVANE_LEDGER_DAYS'] ?? 2500) / DAYS_OF_A_WORLD;

/** Its offsets, looked up once for each quarter of an hour. */
function remembered(zone: ZoneOffset): ZoneOffset {
  const offsets = new Map<number, number>();
  return (seconds) => {
    const quarter = Math.floor(seconds / 900);
    const offset = offsets.get(quarter) ?? zone(900 * quarter);
    offsets.set(quarter, offset);
    return offset;
  };
}

const ZONES = [
  'UTC',
  'Europe/Berlin',
  'Pacific/Auckland',
  'Asia/Kolkata',
  'America/New_York',
  'Australia/Lord_Howe',
].map((name) => remembered(namedZone(name)));

/** The watch's pedometer, service and clock, as the wire format describes them. */
class ModelWatch {
  walked = 0;
  pedometer = 0;
  isAhead = 0; // in seconds
  run = 0;
  #base: number | undefined;
  #total: number;
  #time = 0;
  readonly #zone: ZoneOffset;

  constructor(zone: ZoneOffset, total: number) {
    this.#zone = zone;
    this.#total = total;
  }

  walk(steps: number): void {
    this.walked += steps;
    this.pedometer += steps;
  }

  /** A reading of the platform: what is sent, with its time. */
  read(nowMs: number): StepTotal {
    this.#base ??= this.pedometer;
    const count = this.pedometer - this.#base;
    const time = count < 0 ? 0 : Math.floor(nowMs / 1000) + this.isAhead;
    const offset = this.#zone(this.#time);
    const endOfDay = (Math.floor((this.#time + offset) / DAY) + 1) * DAY - offset;
    if (count >= 0) {
      this.#total = time >= endOfDay ? count : (this.#total + count) | 0;
    }
    this.#time = time;
    const watchTime = time === 0 ? undefined : time;
    return { value: Math.fround(this.#total), watchTime, at: nowMs };
  }

  restartService(): void {
    this.#base = undefined;
    this.run += 1;
  }

  /** The pedometer has begun anew and is below where the service subscribed. */
  get tellsNothing(): boolean {
    return this.pedometer < (this.#base ?? 0);
  }
}

interface Habits {
  losesLinks?: boolean;
  isInAnotherZone?: boolean; // the phone is
  hasLargeTotals?: boolean;
}

class World {
  followedDays = 0; // on which no link was lost
  exactDays = 0;

  readonly #random: Random;
  readonly #habits: Habits;
  readonly #zone: ZoneOffset;
  readonly #watch: ModelWatch;
  #ledger: StepLedger;
  #saved: string;
  #savedOn: number;
  #now: number; // in milliseconds
  readonly #calm: number; // how rarely something is lost
  #hasLink = true;
  #isRunning = true; // the service
  #isMissing = false; // pushes, while the link is there
  #isDisturbed = true; // no day to be followed as a whole
  #wasDisturbed = true; // before that
  #last: number; // the day of the last event
  readonly #disturbed = new Set<number>();
  readonly #walkedAt = new Map<number, number>(); // by the reading's time
  readonly #walkedBefore = new Map<number, number>(); // the day's first reading
  #walkedLast = 0; // at the last reading

  constructor(seed: number, habits: Habits) {
    const random = new Random(seed);
    this.#random = random;
    this.#habits = { losesLinks: true, ...habits };
    const watchZone = ZONES[random.next(0, ZONES.length - 1)] ?? (() => 0);
    const offset = random.next(-12, 12) * 3600;
    this.#zone = habits.isInAnotherZone ? () => offset : watchZone;
    const total = habits.hasLargeTotals ? random.next(16e6, 2147483647) : random.next(0, 5000);
    this.#watch = new ModelWatch(watchZone, total);
    this.#ledger = new StepLedger(this.#zone);
    // In the weeks in which summer time begins and ends, or at any time.
    const days = [60, 75, 85, 270, 295][random.next(0, 9)] ?? random.next(0, 700);
    this.#now = 1000 * (JANUARY + days * DAY + random.next(0, DAY - 1));
    this.#watch.walk(random.oneIn(2) ? 0 : random.next(0, 20000));
    this.#watch.isAhead = this.#clockError();
    this.#calm = random.next(1, 30);
    this.#saved = this.#ledger.save();
    this.#last = this.#today();
    this.#savedOn = this.#last;
  }

  /** Lives through the days; throws at the first thing that is wrong. */
  run(): void {
    const end = this.#last + DAYS_OF_A_WORLD;
    this.#connect();
    while (this.#today() < end) {
      this.#pass();
      this.#happen();
      this.#noteDisturbance();
    }
    for (const { date, isExact, fromMidnight } of this.#ledger.days) {
      this.#check(date);
      const day = Date.parse(date) / 1000 / DAY;
      if (!this.#disturbed.has(day) && day < this.#last) {
        this.followedDays += 1;
        this.exactDays += isExact && fromMidnight ? 1 : 0;
      }
    }
  }

  #noteDisturbance(): void {
    const isDisturbed =
      this.#isDisturbed ||
      !this.#hasLink ||
      this.#isMissing ||
      this.#watch.tellsNothing ||
      this.#ledger.wantsQuestion ||
      this.#habits.hasLargeTotals === true;
    this.#isDisturbed = false;
    for (let day = this.#last; day <= this.#today(); ++day) {
      if (isDisturbed || this.#wasDisturbed) {
        this.#disturbed.add(day);
      }
    }
    this.#wasDisturbed = isDisturbed;
    this.#last = this.#today();
  }

  #today(): number {
    const second = Math.floor(this.#now / 1000);
    return Math.floor((second + this.#zone(second)) / DAY);
  }

  #clockError(): number {
    return this.#random.oneIn(2) ? 0 : this.#random.next(-14 * 3600, 14 * 3600);
  }

  #pass(): void {
    const longest = this.#random.oneIn(10) ? 8 * 3600 : 2 * 3600;
    this.#now += 1 + 1000 * this.#random.next(0, this.#random.oneIn(3) ? 20 : longest);
  }

  #happen(): void {
    const random = this.#random;
    if (random.oneIn(3)) {
      this.#watch.walk(random.next(0, random.oneIn(4) ? 3000 : 20));
    }
    if (!this.#isRunning) {
      if (random.oneIn(2)) {
        this.#isRunning = true;
        this.#watch.restartService();
        this.#update();
      }
    } else if (this.#hasLink) {
      this.#liveWithTheLink(random.next(1, 100));
    } else {
      this.#liveWithoutALink(random.next(1, 9));
    }
  }

  #liveWithoutALink(what: number): void {
    if (what <= 3) {
      this.#connect();
    } else if (what <= 5) {
      this.#isRunning = false;
    } else {
      this.#update();
    }
  }

  #liveWithTheLink(what: number): void {
    if (what <= 60) {
      this.#update();
    } else if (what <= 85) {
      this.#watch.walk(this.#random.oneIn(3) ? this.#random.next(0, 5) : 0);
      this.#update();
      this.#askUntilSure();
    } else if (what <= 87) {
      this.#watch.isAhead = this.#clockError();
    } else if (this.#habits.losesLinks !== true || !this.#random.oneIn(this.#calm)) {
      this.#update();
    } else if (what <= 93) {
      this.#hasLink = false;
      this.#isMissing = false;
      this.#isRunning = this.#random.oneIn(2);
    } else if (what <= 96) {
      this.#isMissing = true;
    } else if (what <= 97 && this.#habits.isInAnotherZone !== true && !this.#isMissing) {
      // The ledger sees it by what the pedometer tells before and at once.
      this.#isDisturbed = true;
      this.#update();
      this.#watch.pedometer = 0;
      this.#update();
    } else {
      this.#restartPhone();
    }
  }

  /** A reading of which the world takes note. */
  #read(): StepTotal {
    this.#now += 1;
    if (!this.#walkedBefore.has(this.#today())) {
      this.#walkedBefore.set(this.#today(), this.#walkedLast);
    }
    this.#walkedLast = this.#watch.walked;
    this.#walkedAt.set(this.#now, this.#watch.walked);
    return this.#watch.read(this.#now);
  }

  #update(): void {
    const total = this.#read();
    if (!this.#hasLink) {
      return;
    }
    if (this.#isMissing) {
      if (this.#random.oneIn(3)) {
        this.#isMissing = false;
        this.#isDisturbed = true;
        this.#ledger.missed();
      }
      return;
    }
    this.#ledger.take(total);
    for (const { date } of this.#ledger.days.slice(-2)) {
      this.#check(date);
    }
    const { isInAnotherZone, losesLinks } = this.#habits;
    if (isInAnotherZone === true || losesLinks !== true || !this.#random.oneIn(20)) {
      this.#askUntilSure();
    }
  }

  #askUntilSure(): void {
    for (let times = 0; times < 3; ++times) {
      if (this.#hasLink && !this.#isMissing && this.#ledger.wantsQuestion) {
        this.#ledger.take(this.#read());
      }
    }
  }

  #connect(): void {
    this.#hasLink = true;
    this.#ledger.connected(this.#random.oneIn(2) ? '' : String(this.#watch.run));
    this.#askUntilSure();
    this.#isDisturbed = true;
  }

  /** It may have saved last some time ago. */
  #restartPhone(): void {
    if (this.#random.oneIn(2)) {
      this.#save();
    }
    for (; this.#savedOn <= this.#today(); ++this.#savedOn) {
      this.#disturbed.add(this.#savedOn); // of which the old text does not know all
    }
    this.#ledger = StepLedger.restore(this.#saved, this.#zone);
    expect(this.#ledger.save()).toBe(this.#saved);
    this.#isMissing = false;
    this.#connect();
    this.#save();
  }

  #save(): void {
    this.#saved = this.#ledger.save();
    this.#savedOn = this.#today();
  }

  #check(date: string): void {
    const day = this.#ledger.day(date);
    const since = day?.fromMidnight
      ? this.#walkedBefore.get(Date.parse(date) / 1000 / DAY)
      : this.#walkedAt.get(day?.since ?? 0);
    const until = this.#walkedAt.get(day?.until ?? 0);
    if (!day || since === undefined || until === undefined) {
      throw new Error(`no reading began or ended ${date}:\n${this.#ledger.save()}`);
    }
    const walked = until - since;
    const isWrong = day.isExact && this.#habits.isInAnotherZone !== true && day.steps !== walked;
    if (day.steps > walked || isWrong) {
      throw new Error(`${walked} were walked on ${date}:\n${this.#ledger.save()}`);
    }
  }
}

it.each<[string, number, Habits, number]>([
  ['with losses', 1_000_000, {}, 0.1],
  ['without losses', 2_000_000, { losesLinks: false }, 0.8],
  ['with totals that a float rounds', 3_000_000, { hasLargeTotals: true }, 0],
  ['of a watch in another zone', 4_000_000, { isInAnotherZone: true }, 0],
])('random days %s', (_, firstSeed, habits, leastFollowed) => {
  const start = firstSeed + Number(process.env['PARVANE_LEDGER_SEED'] ?? 0);
  let followed = 0;
  for (let seed = start; seed < start + WORLDS; ++seed) {
    const world = new World(seed, habits);
    try {
      world.run();
    } catch (error) {
      throw new Error(`seed ${seed}`, { cause: error });
    }
    followed += world.followedDays;
    if (habits.isInAnotherZone !== true) {
      expect(world.exactDays, `seed ${seed}`).toBe(world.followedDays);
    }
  }
  expect(followed).toBeGreaterThanOrEqual(leastFollowed * WORLDS * DAYS_OF_A_WORLD);
});
