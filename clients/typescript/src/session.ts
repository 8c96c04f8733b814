/**
 * The phone's protocol without a link, a clock or a timer.
 *
 * @module
 */
import { Backoff } from './backoff.js';
import { decode, DecodeError, encode } from './codec.js';
import type { StepLedger, StepsOfDay } from './ledger.js';
import {
  fullTimeMs,
  Sensor,
  sensorName,
  type Flags,
  type ListHeader,
  type Reading,
  type Reply,
  type Request,
  type SensorEntry,
  type StopAck,
} from './messages.js';
import { Observation, Observations } from './observation.js';

/** A point in time by both clocks of the caller. */
export interface Moment {
  /** Milliseconds of a clock that may begin anywhere and never goes back: for pauses and time-outs. */
  readonly steadyMs: number;
  /** Milliseconds since 1970-01-01 UTC: for the times of readings and the days of steps. */
  readonly wallMs: number;
}

/** A request of one session. 0 is none; a number is not used twice. */
export type RequestId = number;

/** Why what was asked for does not come. */
export interface Failure {
  /**
   * - `no-answer`: in time
   * - `not-linked`: in time; it was never sent
   * - `link-lost`: while the answer was awaited
   * - `malformed`: the watch sent what the wire format does not allow
   * - `unsupported`: the watch has no such sensor; nothing was sent
   */
  readonly reason: 'no-answer' | 'not-linked' | 'link-lost' | 'malformed' | 'unsupported';
  /** One line for people, without a full stop. */
  readonly text: string;
}

/** A whole answer to a request for the sensors. */
export interface SensorList {
  readonly header: ListHeader;
  /** As many as the header counts, in the watch's order. */
  readonly entries: readonly SensorEntry[];
}

/** The watch is there: once for each link that comes to be of use. */
export interface Linked {
  readonly kind: 'linked';
}

/** What was linked is so no more: once. What is followed will be asked for on the next link. */
export interface Lost {
  readonly kind: 'lost';
  readonly why: Failure;
}

/** An attempt to be linked that led to nothing, with the pause before the next one. */
export interface AttemptFailed {
  readonly kind: 'attempt-failed';
  readonly why: Failure;
  readonly pauseMs: number;
}

/** A reading, asked for or pushed. Each packet is told once. */
export interface NewReading {
  readonly kind: 'reading';
  /** As on the wire. */
  readonly reading: Reading;
  /** What it is worth: its age, whether it is a measurement, worn or not. */
  readonly observation: Observation;
  /** By the clock of the watch, in ms since 1970-01-01 UTC; undefined where that has no time. */
  readonly watchTimeMs: number | undefined;
  /** Pedometer, where steps are counted: those of the day, so far. */
  readonly steps: StepsOfDay | undefined;
  /** False: the same is asked for again at once, as this total alone does not tell the steps. */
  readonly isSettled: boolean;
  /** That it answers; 0: none, it was pushed or is followed. */
  readonly request: RequestId;
}

/** The sensors of the watch. */
export interface NewList {
  readonly kind: 'list';
  readonly list: SensorList;
  readonly request: RequestId;
}

/** A stop was acknowledged. */
export interface Stopped {
  readonly kind: 'stopped';
  readonly sensor: number;
  readonly request: RequestId;
}

/**
 * A request ends without its answer. With `request` 0 it is a sensor that is followed: it is left out
 * until it speaks by itself, or the next link.
 */
export interface Failed {
  readonly kind: 'failed';
  readonly request: RequestId;
  /** Undefined: the sensor list. */
  readonly sensor: number | undefined;
  readonly why: Failure;
}

/** A packet that is none: what is wrong with it, in a line for a log. Nothing else comes of it. */
export interface Nonsense {
  readonly kind: 'nonsense';
  readonly text: string;
}

/** What a {@link Session} tells. */
export type SessionEvent =
  Linked | Lost | AttemptFailed | NewReading | NewList | Stopped | Failed | Nonsense;

/** Times are in milliseconds. */
export interface SessionOptions {
  /** Flags of the first request; the following ones take turns. 1 unless given. */
  readonly firstFlags?: 1 | 2 | 3;
  /** For the answer to each request. 5 s, or what the sensor takes, unless given: {@link answerTimeoutMs}. */
  readonly timeoutMs?: number;
  /** After so long without an answer the worn state is asked for again: 3.5 s. */
  readonly askAgainAfterMs?: number;
  /** Before a lost link is made again, doubled up to the longest one: 0.1 s. */
  readonly firstPauseMs?: number;
  /** 5 s. */
  readonly longestPauseMs?: number;
  /**
   * A link counts only when the watch has answered on it, for which it is sent a stop of the activity;
   * and after an unanswered request it is asked for its sensors, to see whether it is still there.
   * False: that is left to whoever asks, except where the activity is followed. True unless given.
   */
  readonly provesLink?: boolean;
  /**
   * With a heart rate the worn state is asked for, unless it was just told: what a watch measures that
   * is not worn is worth little. It is a reading like any other, and a silent one is passed over. True
   * unless given.
   */
  readonly asksWorn?: boolean;
  /** Steps are asked for until they are known. False: once, and the total is told as it is. True unless given. */
  readonly countsSteps?: boolean;
}

// So many packets without a wait in between may be what is left of more: the link holds some hundreds.
const MANY_IN_A_ROW = 64;
// So late, the program was stopped, or had no time to read.
const HELD_UP_MS = 1000;
// So long is the worn state to hold on when the heart rate is asked for, which takes 15 s.
const WORN_LEFT_MS = 30_000;
// How far off the times of readings may be: whole seconds, and those of activities a second off.
const INACCURACY_MS = 2000;
// Totals that do not tell: two tell, and a midnight may lie between them.
const ENOUGH_TOTALS = 4;

type State = 'resting' | 'wanting' | 'trying' | 'ready';

/** What was asked for and not answered. */
interface Question {
  readonly id: RequestId;
  isOurs: boolean; // nobody outside knows of it
  request: Request;
  timeoutMs: number;
  giveUpAt: number;
  sentAt: number | undefined; // undefined: waits for a link
  askAgainAt: number | undefined;
  list: { header: ListHeader; entries: SensorEntry[] } | undefined; // as far as it has come
}

/** A sensor that is followed. */
interface Wish {
  everyMs: number;
  askAt: number | undefined; // undefined: is being asked, pushes, or is left out
}

type Draft = { -readonly [Name in keyof NewReading]: NewReading[Name] };

/**
 * The phone's side of the accessory link, without the link.
 *
 * No socket, no clock, no timer, no callback. The caller says what happens and when, and after each
 * call takes what is to be sent ({@link nextPacket}), what there is to tell ({@link nextEvent}), whether
 * there should be a link ({@link wantsLink}), and when to come back at the latest ({@link deadlineMs}).
 * So one program serves as many sessions as it likes; {@link Watch} is the loop around one.
 *
 * Requests name their time-out, which begins with the call; they wait for a link where there is none. A
 * question that is being asked already is not asked twice: its number is returned again, and it has the
 * later of the two time-outs. What is followed stays so through lost links: it is asked for again on
 * each new one. Throws what the ledger's zone throws, and nothing else.
 */
export class Session {
  readonly #provesLink: boolean;
  readonly #asksWorn: boolean;
  readonly #countsSteps: boolean;
  readonly #askAgainAfterMs: number;
  readonly #timeoutMs: number | undefined;
  readonly #ledger: StepLedger;
  readonly #observations = new Observations();
  readonly #backoff: Backoff;
  #state: State = 'wanting';
  #connectAt = 0;
  #questions: Question[] = [];
  readonly #wishes = new Map<number, Wish>();
  #packets: Uint8Array[] = [];
  readonly #events: SessionEvent[] = [];
  #promised: number | undefined; // the deadline after the last call
  #heardAt = -Infinity; // the last packet
  #missedAt = -Infinity;
  #flags: Flags;
  #lastId = 0;
  #watchTimeMs: number | undefined; // of the last reading
  #lagMs: number | undefined; // of the fastest reading, behind the watch's clock
  #takenInARow = 0; // packets since the last advance()
  #unsure = 0; // totals in a row that did not tell the steps

  /**
   * Begins without a link and wants one.
   *
   * @param ledger - new or restored: what is known of the steps
   */
  constructor(options: SessionOptions, ledger: StepLedger) {
    const { firstFlags = 1, provesLink = true, asksWorn = true, countsSteps = true } = options;
    const { askAgainAfterMs = 3500, firstPauseMs = 100, longestPauseMs = 5000 } = options;
    this.#provesLink = provesLink;
    this.#asksWorn = asksWorn;
    this.#countsSteps = countsSteps;
    this.#askAgainAfterMs = askAgainAfterMs;
    this.#timeoutMs = options.timeoutMs;
    this.#ledger = ledger;
    this.#backoff = new Backoff(firstPauseMs, longestPauseMs);
    this.#flags = [1, 2, 3].includes(firstFlags) ? firstFlags : 1; // whatever is called without types
  }

  // --- what happens ---

  /**
   * There is a link.
   *
   * @param run - see {@link StepLedger.connected}
   */
  connected(now: Moment, run = ''): void {
    if (this.isLinked || this.#state === 'trying') {
      this.lost('another link took its place', now);
    }
    this.#state = 'trying';
    this.#ledger.connected(run);
    this.#unsure = 0;
    this.#lagMs = undefined;
    if (this.#provesLink || this.follows(Sensor.Activity)) {
      // Also what a start needs: the watch may still count the activity as started.
      const id = this.#ask({ kind: 'stop', sensor: Sensor.Activity, flags: 0 }, true, now);
      const stop = this.#questions.find((question) => question.id === id);
      if (stop) {
        this.#send(stop, now);
      }
    } else {
      this.#becomeReady(now);
    }
    this.#work(now);
  }

  /**
   * The link is gone, or could not be made. Does nothing while {@link wantsLink} is false.
   *
   * @param why - one line for people, without a full stop
   */
  lost(why: string, now: Moment): void {
    this.#goAway({ reason: 'link-lost', text: why }, now);
    this.#work(now);
  }

  /** A packet of the link, whole, whatever its bytes. Without a link it is dropped. */
  take(packet: Uint8Array, now: Moment): void {
    if (this.#state !== 'trying' && this.#state !== 'ready') {
      return;
    }
    this.#lookAtTheTime(now);
    this.#takenInARow += 1;
    if (this.#takenInARow >= MANY_IN_A_ROW) {
      this.#missed(now);
    }
    const reply = this.#decode(packet, now);
    if (reply) {
      this.#heardAt = now.steadyMs;
      this.#backoff.reset();
      this.#takeReply(reply, now);
    }
    this.#work(now);
  }

  /**
   * Time has passed, and every packet that had arrived was taken. To be called before each wait: many
   * packets in between, or a call that comes long after {@link deadlineMs}, mean that the program was
   * held up and packets may have been dropped, which is then reckoned with.
   */
  advance(now: Moment): void {
    this.#lookAtTheTime(now);
    const isBehind = this.#takenInARow >= MANY_IN_A_ROW;
    this.#takenInARow = 0;
    if (isBehind) {
      this.#missed(now); // between the last one of them and the next
    }
    this.#work(now);
  }

  // --- what is wanted ---

  /**
   * One reading: ends with {@link NewReading} or {@link Failed}. Heart rate takes 15 s, the worn state 3 s.
   *
   * @param timeoutMs - 5 s, or what the sensor takes, unless given here or in the options
   */
  measure(sensor: number, now: Moment, timeoutMs?: number): RequestId {
    const id = this.#ask({ kind: 'measure', sensor, flags: 0 }, false, now, timeoutMs);
    this.#work(now);
    return id;
  }

  /** The sensors of the watch: ends with {@link NewList} or {@link Failed}. */
  list(now: Moment, timeoutMs?: number): RequestId {
    const id = this.#ask({ kind: 'list', flags: 0 }, false, now, timeoutMs);
    this.#work(now);
    return id;
  }

  /** Follows the sensor no more, and has the watch stop pushing it: ends with {@link Stopped} or {@link Failed}. */
  stop(sensor: number, now: Moment, timeoutMs?: number): RequestId {
    this.#wishes.delete(sensor);
    this.#questions = this.#questions.filter(
      ({ isOurs, request }) => !isOurs || sensorOf(request) !== sensor || request.kind === 'stop',
    );
    const id = this.#ask({ kind: 'stop', sensor, flags: 0 }, false, now, timeoutMs);
    this.#work(now);
    return id;
  }

  /**
   * Readings of the sensor for as long as the session lasts: {@link NewReading} with `request` 0.
   * Activity is stopped, then started; steps are asked for, which has the watch push them for good;
   * heart rate and worn state are measured again and again.
   *
   * @param everyMs - between two questions for heart rate or worn state; at least what they take
   */
  follow(sensor: number, now: Moment, everyMs = 0): void {
    if (!isKnown(sensor)) {
      this.#events.push({ kind: 'failed', request: 0, sensor, why: UNSUPPORTED });
      return;
    }
    const wish = this.#wishes.get(sensor);
    if (wish) {
      wish.everyMs = everyMs;
    } else {
      this.#wishes.set(sensor, { everyMs, askAt: this.isLinked ? now.steadyMs : undefined });
    }
    this.#work(now);
  }

  /** Whether the sensor is followed. */
  follows(sensor: number): boolean {
    return this.#wishes.has(sensor);
  }

  // --- what comes of it ---

  /** Whether there should be a link: make or keep it; close it, and wait, when false. */
  get wantsLink(): boolean {
    return this.#state !== 'resting';
  }

  /** Whether the last of {@link Linked} and {@link Lost} was the former. */
  get isLinked(): boolean {
    return this.#state === 'ready';
  }

  /** What is to be sent, in order; undefined when that is all. Emptied when the link goes. */
  nextPacket(): Uint8Array | undefined {
    return this.#packets.shift();
  }

  /** What there is to tell, in order; undefined when that is all. */
  nextEvent(): SessionEvent | undefined {
    return this.#events.shift();
  }

  /**
   * When {@link advance} is to be called at the latest, by the steady clock; undefined: not before
   * something happens.
   */
  get deadlineMs(): number | undefined {
    const deadlines = this.#questions.flatMap(({ giveUpAt, askAgainAt }) => [giveUpAt, askAgainAt]);
    if (this.#state === 'resting') {
      deadlines.push(this.#connectAt);
    }
    if (this.isLinked) {
      for (const { askAt } of this.#wishes.values()) {
        deadlines.push(askAt);
      }
    }
    const earliest = Math.min(...deadlines.map((deadline) => deadline ?? Infinity));
    return earliest === Infinity ? undefined : earliest;
  }

  /** The latest reading of the sensor; undefined before the first. */
  latest(sensor: number): Observation | undefined {
    return this.#observations.latest(sensor);
  }

  /** The true steps, as far as they are known: to look at and to save. */
  get steps(): StepLedger {
    return this.#ledger;
  }

  // --- the link ---

  /** Does what is due, whatever has happened. */
  #work(now: Moment): void {
    if (this.#state === 'resting' && this.#connectAt <= now.steadyMs) {
      this.#state = 'wanting';
    }
    this.#giveUpWhatIsLate(now);
    if (this.isLinked) {
      this.#askWhatIsDue(now);
    }
    this.#promised = this.deadlineMs;
  }

  #lookAtTheTime(now: Moment): void {
    if (this.#promised !== undefined && now.steadyMs - this.#promised > HELD_UP_MS) {
      this.#missed(now);
    }
    this.#promised = undefined;
  }

  /** Packets may have been dropped: pushes, and answers as well. */
  #missed(now: Moment): void {
    this.#ledger.missed();
    this.#observations.break();
    this.#missedAt = now.steadyMs;
    this.#unsure = 0;
    for (const [sensor, wish] of this.#wishes) {
      if (!this.#questions.some(({ request }) => sensorOf(request) === sensor)) {
        wish.askAt ??= now.steadyMs;
      }
    }
  }

  #becomeReady(now: Moment): void {
    this.#state = 'ready';
    this.#events.push({ kind: 'linked' });
    for (const question of this.#questions) {
      if (question.sentAt === undefined) {
        this.#send(question, now);
      }
    }
    for (const wish of this.#wishes.values()) {
      wish.askAt = now.steadyMs;
    }
  }

  /** The link is of no more use, or could not be made. */
  #goAway(why: Failure, now: Moment): void {
    if (this.#state === 'resting') {
      return;
    }
    const wasLinked = this.isLinked;
    const pauseMs = this.#backoff.next();
    this.#state = 'resting';
    this.#connectAt = now.steadyMs + pauseMs;
    this.#packets = [];
    this.#observations.break();
    this.#takenInARow = 0;
    this.#events.push(wasLinked ? { kind: 'lost', why } : { kind: 'attempt-failed', why, pauseMs });
    for (const question of this.#questions.filter(({ sentAt }) => sentAt !== undefined)) {
      const text = `the link was lost before the answer to ${whatOf(question.request)}`;
      this.#fail(question, { reason: 'link-lost', text });
      this.#drop(question);
    }
    for (const wish of this.#wishes.values()) {
      wish.askAt = undefined;
    }
  }

  // --- questions ---

  #giveUpWhatIsLate(now: Moment): void {
    for (const question of [...this.#questions]) {
      if (!this.#questions.includes(question)) {
        continue; // it has ended with the link
      }
      if (question.giveUpAt <= now.steadyMs) {
        this.#giveUp(question, now);
      } else if (question.askAgainAt !== undefined && question.askAgainAt <= now.steadyMs) {
        this.#send(question, now);
      }
    }
  }

  #giveUp(late: Question, now: Moment): void {
    this.#drop(late);
    const { request, sentAt, isOurs } = late;
    const within = secondsText(late.timeoutMs);
    const why: Failure =
      sentAt === undefined
        ? { reason: 'not-linked', text: `no link to the watch within ${within}` }
        : { reason: 'no-answer', text: `no answer to ${whatOf(request)} within ${within}` };
    const isMeasurement = request.kind === 'measure';
    const isProof = this.#state === 'trying' && sentAt !== undefined;
    if (isProof || (isOurs && !isMeasurement)) {
      this.#fail(late, why);
      this.#goAway(why, now); // that is answered at once, or never
      return;
    }
    const wish = isMeasurement && isOurs ? this.#wishes.get(request.sensor) : undefined;
    if (wish && sentAt !== undefined && sentAt <= this.#missedAt) {
      wish.askAt = now.steadyMs; // the answer may be among what was dropped
      return;
    }
    this.#fail(late, why);
    if (wish) {
      this.#events.push({ kind: 'failed', request: 0, sensor: sensorOf(request), why });
    }
    const hasHeardNothing = sentAt !== undefined && this.#heardAt <= sentAt;
    if (this.#provesLink && this.isLinked && hasHeardNothing) {
      this.#ask({ kind: 'list', flags: 0 }, true, now);
    }
  }

  #askWhatIsDue(now: Moment): void {
    const due = [...this.#wishes].filter(([, { askAt = Infinity }]) => askAt <= now.steadyMs);
    for (const [sensor, wish] of due.sort(([a], [b]) => a - b)) {
      wish.askAt = undefined;
      const kind = sensor === Sensor.Activity ? 'stop' : 'measure';
      this.#ask({ kind, sensor, flags: 0 }, true, now);
    }
  }

  /** @param isOurs - nobody outside is told of it, unless it is asked for there as well */
  #ask(request: Request, isOurs: boolean, now: Moment, timeoutMs?: number): RequestId {
    const within = timeoutMs ?? this.#timeoutMs ?? usualTimeoutMs(request);
    const giveUpAt = now.steadyMs + within;
    const asked = this.#find(request.kind, sensorOf(request));
    if (asked) {
      asked.isOurs &&= isOurs;
      if (giveUpAt > asked.giveUpAt) {
        asked.giveUpAt = giveUpAt;
        asked.timeoutMs = within;
      }
      return asked.id;
    }
    const id = ++this.#lastId;
    const nothing = { sentAt: undefined, askAgainAt: undefined, list: undefined };
    const question = { id, isOurs, request, timeoutMs: within, giveUpAt, ...nothing };
    if (request.kind !== 'list' && !isKnown(request.sensor)) {
      this.#fail(question, UNSUPPORTED);
      return id;
    }
    this.#questions.push(question);
    if (this.isLinked) {
      this.#send(question, now); // may ask for more
    }
    return id;
  }

  /** Sends it, or sends it once more: with the same flags, as either of the two may be answered. */
  #send(question: Question, now: Moment): void {
    if (question.sentAt === undefined) {
      question.sentAt = now.steadyMs;
      question.request = { ...question.request, flags: this.#nextFlags() };
    }
    const { request } = question;
    if (request.kind === 'measure' && request.sensor === Sensor.WearState) {
      question.askAgainAt = now.steadyMs + this.#askAgainAfterMs;
    }
    this.#packets.push(encode(request));
    const isHeartRate = request.kind === 'measure' && request.sensor === Sensor.HeartRate;
    if (this.#asksWorn && isHeartRate) {
      this.#askWorn(now);
    }
  }

  #askWorn(now: Moment): void {
    if (this.#observations.wornAt(now.wallMs + WORN_LEFT_MS) === 'unknown') {
      this.#ask({ kind: 'measure', sensor: Sensor.WearState, flags: 0 }, true, now);
    }
  }

  /** Tells who has asked. */
  #fail({ id, isOurs, request }: Question, why: Failure): void {
    if (!isOurs) {
      const sensor = request.kind === 'list' ? undefined : request.sensor;
      this.#events.push({ kind: 'failed', request: id, sensor, why });
    }
  }

  #find(kind: Request['kind'], sensor: number): Question | undefined {
    return this.#questions.find(
      ({ request }) => request.kind === kind && sensorOf(request) === sensor,
    );
  }

  #drop(question: Question): void {
    this.#questions = this.#questions.filter((other) => other !== question);
  }

  #nextFlags(): Flags {
    // 0 is left out: the watch sends it where there was no request, as after its own restart.
    const flags = this.#flags;
    this.#flags = flags === 3 ? 1 : ((flags + 1) as Flags);
    return flags;
  }

  // --- replies ---

  #decode(packet: Uint8Array, now: Moment): Reply | undefined {
    try {
      return decode(packet);
    } catch (error) {
      if (!(error instanceof DecodeError)) {
        throw error;
      }
      this.#missed(now); // it may have been a total
      this.#events.push({ kind: 'nonsense', text: error.message });
      return undefined;
    }
  }

  #takeReply(reply: Reply, now: Moment): void {
    switch (reply.kind) {
      case 'reading':
        this.#takeReading(reply, now);
        break;
      case 'stop-ack':
        this.#takeStopAck(reply, now);
        break;
      case 'list-header':
        this.#takeHeader(reply);
        break;
      case 'entry':
        this.#takeEntry(reply);
        break;
      case 'option':
        break; // nothing asks for it
    }
  }

  #takeReading(reading: Reading, now: Moment): void {
    const { sensor, timeMs } = reading;
    const watchTimeMs = timeMs === 0 ? undefined : fullTimeMs(timeMs, now.wallMs);
    const told: Draft = {
      kind: 'reading',
      reading,
      observation: this.#observe(reading, this.#sentAt(watchTimeMs, now)),
      watchTimeMs,
      steps: undefined,
      isSettled: true,
      request: 0,
    };
    if (sensor === Sensor.Pedometer && this.#countsSteps) {
      this.#count(told, now);
    }
    const question = this.#find(reading.command === 2 ? 'measure' : 'start', sensor);
    // The worn state is told by whichever request reached the watch before its sensor spoke, so its
    // flags may be those of the request before this one.
    const isAnswer =
      question?.sentAt !== undefined &&
      (question.request.flags === reading.flags || sensor === Sensor.WearState);
    const wish = this.#wishes.get(sensor);
    if (isAnswer) {
      this.#answered(question, told, now);
    } else if (wish && !question && (!told.isSettled || !isPushed(sensor))) {
      wish.askAt ??= now.steadyMs; // it was left out, or more is to be known
    }
    const isAsked = this.#find('measure', Sensor.Pedometer) !== undefined;
    told.isSettled ||= !wish && !isAsked;
    this.#events.push(told);
  }

  /** What is read in a hurry may have gaps before it. */
  #observe(reading: Reading, atMs: number): Observation {
    const observation = this.#observations.take(reading, atMs);
    const { sensor, value, at, worn } = observation;
    return this.#takenInARow < MANY_IN_A_ROW
      ? observation
      : new Observation(sensor, value, at, worn, false);
  }

  /**
   * When the watch has sent it, by the phone's clock: before it arrived where it took longer than others,
   * as it lay in the link of a program that was held up.
   */
  #sentAt(watchTimeMs: number | undefined, now: Moment): number {
    if (watchTimeMs === undefined) {
      return now.wallMs;
    }
    const lagMs = now.wallMs - watchTimeMs;
    const last = this.#watchTimeMs ?? -Infinity;
    const hasGoneBack = watchTimeMs < last - INACCURACY_MS; // the watch's clock
    this.#lagMs = hasGoneBack ? lagMs : Math.min(this.#lagMs ?? lagMs, lagMs);
    this.#watchTimeMs = watchTimeMs;
    const late = lagMs - this.#lagMs;
    return late > INACCURACY_MS ? now.wallMs - late : now.wallMs;
  }

  /** Enters a total, and says what is known of the steps by now. */
  #count(told: Draft, now: Moment): void {
    const { value } = told.reading;
    const watchTime =
      told.watchTimeMs === undefined ? undefined : Math.floor(told.watchTimeMs / 1000);
    this.#ledger.take({ value, watchTime, at: now.wallMs });
    const isUnsure = this.#ledger.wantsQuestion;
    this.#unsure = isUnsure ? this.#unsure + 1 : 0;
    const { date, steps } = this.#ledger.dayOf(now.wallMs);
    told.steps = { date, steps: steps && isUnsure ? { ...steps, isExact: false } : steps };
    told.isSettled = !isUnsure || this.#unsure >= ENOUGH_TOTALS;
  }

  #answered(question: Question, told: Draft, now: Moment): void {
    if (!told.isSettled) {
      question.giveUpAt = now.steadyMs + question.timeoutMs;
      question.sentAt = undefined;
      this.#send(question, now);
      return;
    }
    const { sensor } = told.reading;
    const wish = this.#wishes.get(sensor);
    if (wish && !isPushed(sensor)) {
      // Of two questions for the worn state within 3 s the watch may answer one.
      const least = sensor === Sensor.WearState ? this.#askAgainAfterMs : 0;
      const next = (question.sentAt ?? now.steadyMs) + Math.max(wish.everyMs, least);
      wish.askAt = Math.max(next, now.steadyMs);
    }
    told.request = question.isOurs ? 0 : question.id;
    this.#drop(question);
  }

  #takeStopAck({ sensor, flags }: StopAck, now: Moment): void {
    const question = this.#find('stop', sensor);
    if (question?.sentAt === undefined || question.request.flags !== flags) {
      return; // late
    }
    if (!question.isOurs) {
      this.#events.push({ kind: 'stopped', sensor, request: question.id });
    }
    this.#drop(question);
    if (this.#state === 'trying') {
      this.#becomeReady(now);
    }
    const wish = this.#wishes.get(Sensor.Activity);
    if (sensor === Sensor.Activity && wish) {
      wish.askAt = undefined;
      this.#ask({ kind: 'start', sensor, format: 0, flags: 0 }, true, now);
    }
  }

  #takeHeader(header: ListHeader): void {
    const question = this.#find('list', 0);
    if (question?.sentAt !== undefined && question.request.flags === header.flags) {
      question.list = { header, entries: [] };
      this.#endListWhenWhole(question, question.list);
    }
  }

  #takeEntry(entry: SensorEntry): void {
    const question = this.#find('list', 0);
    if (!question?.list || question.request.flags !== entry.flags) {
      return;
    }
    const { entries } = question.list;
    entries.push(entry);
    if (entry.position !== entries.length) {
      const text = `sensor entry ${entry.position} where entry ${entries.length} was due`;
      this.#fail(question, { reason: 'malformed', text });
      this.#drop(question);
      return;
    }
    this.#endListWhenWhole(question, question.list);
  }

  #endListWhenWhole(question: Question, list: SensorList): void {
    if (list.entries.length < list.header.count) {
      return;
    }
    if (!question.isOurs) {
      this.#events.push({ kind: 'list', list, request: question.id });
    }
    this.#drop(question);
  }
}

/** How long a measurement may take until it counts as unanswered, with some room, in milliseconds. */
export function answerTimeoutMs(sensor: number): number {
  switch (sensor) {
    case Sensor.HeartRate:
      return 20_000; // the watch takes 15 s
    case Sensor.WearState:
      return 8000; // 3 s, or twice that when asked twice
    default:
      return 5000;
  }
}

const UNSUPPORTED: Failure = { reason: 'unsupported', text: 'the watch has no such sensor' };

function usualTimeoutMs(request: Request): number {
  return answerTimeoutMs(request.kind === 'measure' ? request.sensor : Sensor.Activity);
}

function isKnown(sensor: number): boolean {
  return sensorName(sensor) !== 'unknown';
}

function isPushed(sensor: number): boolean {
  return sensor === Sensor.Activity || sensor === Sensor.Pedometer;
}

function sensorOf(request: Request): number {
  return request.kind === 'list' ? 0 : request.sensor;
}

/** As in "no answer to ...". */
function whatOf(request: Request): string {
  if (request.kind === 'list') {
    return 'the sensor list';
  }
  const what = request.kind === 'measure' ? 'measurement' : request.kind;
  return `the ${what} of '${sensorName(request.sensor)}'`;
}

/** "15 s", "0.25 s". */
function secondsText(lengthMs: number): string {
  return `${Math.floor(lengthMs) / 1000} s`;
}
