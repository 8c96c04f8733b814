/**
 * A session with its link, its clock and its timer: what most programs use.
 *
 * @module
 */
import { errorText } from './error-text.js';
import { StepLedger, type StepsOfDay } from './ledger.js';
import type { Observation } from './observation.js';
import {
  Session,
  type Failure,
  type Moment,
  type NewReading,
  type RequestId,
  type SensorList,
  type SessionEvent,
  type SessionOptions,
} from './session.js';
import type { Link, Transport } from './transport/transport.js';
import { systemZone } from './zone.js';

/** Why a promise of a {@link Watch} is not kept. */
export class WatchError extends Error {
  override readonly name = 'WatchError';
  /** As in {@link Failure}; `closed`: the {@link Watch} was closed meanwhile. */
  readonly reason: Failure['reason'] | 'closed';

  constructor(reason: Failure['reason'] | 'closed', text: string) {
    super(text);
    this.reason = reason;
  }
}

/** How a {@link Watch} behaves. */
export interface WatchOptions extends SessionOptions {
  /** What is known of the steps; a new ledger with the zone of this program unless given. */
  readonly ledger?: StepLedger;
}

/** Is told of each event, in order. What it throws is reported as uncaught, and ends nothing. */
export type Listener = (event: SessionEvent) => void;

interface Waiter {
  settle(event: SessionEvent): void;
  reject(error: WatchError): void;
}

const LONGEST_TIMER_MS = 2 ** 31 - 1;

/**
 * One watch, for as long as it is not closed: links are made, proved, and made anew when they are lost.
 *
 * @example
 * ```ts
 * const watch = new Watch(new WebSocketTransport('ws://127.0.0.1:8467/link'));
 * watch.follow(Sensor.Pedometer);
 * for await (const event of watch.events()) {
 *   if (event.kind === 'reading') console.log(event.observation.text(Date.now()));
 * }
 * ```
 */
export class Watch {
  readonly #transport: Transport;
  readonly #session: Session;
  readonly #listeners = new Set<Listener>();
  readonly #ends = new Set<() => void>(); // of those that iterate
  readonly #waiters = new Map<RequestId, Waiter[]>();
  #link: Link | undefined;
  #isOpen = false; // the link
  #isClosed = false;
  #isBusy = false;
  #hasTaken = false; // packets, since the session was told that there are no more
  #timer: ReturnType<typeof setTimeout> | undefined;
  #timerAt: number | undefined;

  /** Begins at once, with the first link. */
  constructor(transport: Transport, options: WatchOptions = {}) {
    const { ledger = new StepLedger(systemZone), ...sessionOptions } = options;
    this.#transport = transport;
    this.#session = new Session(sessionOptions, ledger);
    queueMicrotask(() => {
      this.#goOn();
    });
  }

  /**
   * One reading. Heart rate takes 15 s, the worn state up to 3 s, steps until they are known; a
   * question waits for a link where there is none.
   *
   * @param timeoutMs - 20 s for the heart rate, 8 s for the worn state, 5 s for the others unless given
   * @throws {@link WatchError}, as a rejection
   */
  measure(sensor: number, timeoutMs?: number): Promise<NewReading> {
    return this.#ask('reading', (now) => this.#session.measure(sensor, now, timeoutMs));
  }

  /**
   * The sensors of the watch.
   *
   * @param timeoutMs - 5 s unless given
   * @throws {@link WatchError}, as a rejection
   */
  async list(timeoutMs?: number): Promise<SensorList> {
    return (await this.#ask('list', (now) => this.#session.list(now, timeoutMs))).list;
  }

  /**
   * Readings of the sensor, as events, for as long as the watch is not closed or the sensor stopped,
   * through lost links. See {@link Session.follow}.
   *
   * @param everyMs - between two questions for heart rate or worn state; at least what they take
   */
  follow(sensor: number, everyMs?: number): void {
    this.#session.follow(sensor, now(), everyMs);
    this.#goOn();
  }

  /**
   * Follows the sensor no more, and has the watch stop pushing it. Steps it pushes on regardless.
   *
   * @throws {@link WatchError}, as a rejection
   */
  async stop(sensor: number, timeoutMs?: number): Promise<void> {
    await this.#ask('stopped', (now) => this.#session.stop(sensor, now, timeoutMs));
  }

  /** Whether the watch is there. */
  get isLinked(): boolean {
    return this.#session.isLinked;
  }

  /** The latest reading of the sensor; undefined before the first. */
  latest(sensor: number): Observation | undefined {
    return this.#session.latest(sensor);
  }

  /** The true steps: to look at, and to save from time to time. */
  get steps(): StepLedger {
    return this.#session.steps;
  }

  /** What is known of the steps of today. */
  stepsToday(): StepsOfDay {
    return this.steps.dayOf(Date.now());
  }

  /** @returns a function that ends the listening */
  listen(listener: Listener): () => void {
    this.#listeners.add(listener);
    return () => {
      this.#listeners.delete(listener);
    };
  }

  /** The events from now on, until the watch is closed. Those that wait to be looked at are kept. */
  async *events(): AsyncGenerator<SessionEvent, void, undefined> {
    const waiting: SessionEvent[] = [];
    let wake: () => void = () => undefined;
    const unlisten = this.listen((event) => {
      waiting.push(event);
      wake();
    });
    const end = () => {
      wake();
    };
    this.#ends.add(end);
    try {
      while (!this.#isClosed || waiting.length > 0) {
        const event = waiting.shift();
        if (event) {
          yield event;
        } else {
          await new Promise<void>((resolve) => (wake = resolve));
        }
      }
    } finally {
      unlisten();
      this.#ends.delete(end);
    }
  }

  /** Ends the link and everything that was asked for. The watch then pushes nothing but steps, to the next phone. */
  close(): void {
    this.#isClosed = true;
    clearTimeout(this.#timer);
    this.#dropLink();
    for (const waiter of [...this.#waiters.values()].flat()) {
      waiter.reject(new WatchError('closed', 'the watch was closed'));
    }
    this.#waiters.clear();
    for (const end of this.#ends) {
      end();
    }
  }

  #ask<Kind extends SessionEvent['kind']>(
    kind: Kind,
    ask: (now: Moment) => RequestId,
  ): Promise<Extract<SessionEvent, { kind: Kind }>> {
    return new Promise((resolve, reject) => {
      if (this.#isClosed) {
        reject(new WatchError('closed', 'the watch was closed'));
        return;
      }
      const id = ask(now());
      const settle = (event: SessionEvent) => {
        if (event.kind === kind) {
          resolve(event as Extract<SessionEvent, { kind: Kind }>);
        } else if (event.kind === 'failed') {
          reject(new WatchError(event.why.reason, event.why.text));
        }
      };
      this.#waiters.set(id, [...(this.#waiters.get(id) ?? []), { settle, reject }]);
      this.#goOn();
    });
  }

  /** Does what has come of the last call of the session. Whoever is told something may call again. */
  #goOn(): void {
    if (this.#isBusy) {
      return;
    }
    this.#isBusy = true;
    while (!this.#isClosed) {
      this.#mindTheLink();
      this.#send();
      const event = this.#session.nextEvent();
      if (!event) {
        break;
      }
      this.#tell(event);
    }
    this.#isBusy = false;
    this.#setTimer();
  }

  #mindTheLink(): void {
    if (!this.#session.wantsLink) {
      this.#dropLink();
    } else if (!this.#link) {
      this.#openLink();
    }
  }

  #openLink(): void {
    const isCurrent = () => link !== undefined && link === this.#link;
    let link: Link | undefined;
    try {
      link = this.#transport.open({
        opened: () => {
          if (isCurrent()) {
            this.#isOpen = true;
            this.#session.connected(now());
            this.#goOn();
          }
        },
        packet: (bytes) => {
          if (isCurrent()) {
            this.#hasTaken = true;
            this.#session.take(bytes, now());
            this.#goOn();
          }
        },
        closed: (why) => {
          if (isCurrent()) {
            this.#lose(why);
          }
        },
      });
      this.#link = link;
    } catch (error) {
      this.#lose(errorText(error));
    }
  }

  #dropLink(): void {
    const link = this.#link;
    this.#link = undefined;
    this.#isOpen = false;
    link?.close();
  }

  #lose(why: string): void {
    this.#link = undefined;
    this.#isOpen = false;
    this.#session.lost(why, now());
    this.#goOn();
  }

  #send(): void {
    try {
      while (this.#isOpen) {
        const packet = this.#session.nextPacket();
        if (!packet) {
          break;
        }
        this.#link?.send(packet);
      }
    } catch (error) {
      this.#dropLink();
      this.#lose(errorText(error));
    }
  }

  #tell(event: SessionEvent): void {
    const request = 'request' in event ? event.request : 0;
    const waiters = this.#waiters.get(request) ?? [];
    this.#waiters.delete(request);
    for (const waiter of waiters) {
      waiter.settle(event);
    }
    for (const listener of [...this.#listeners]) {
      try {
        listener(event);
      } catch (error) {
        queueMicrotask(() => {
          throw error;
        });
      }
    }
  }

  /** For the session's deadline; or at once, when whatever else has arrived was taken. */
  #setTimer(): void {
    const at = this.#hasTaken ? -Infinity : this.#session.deadlineMs;
    if (at === this.#timerAt && !this.#isClosed) {
      return;
    }
    clearTimeout(this.#timer);
    this.#timerAt = undefined;
    if (at === undefined || this.#isClosed) {
      return;
    }
    this.#timerAt = at;
    const delay = Math.min(Math.max(at - now().steadyMs, 0), LONGEST_TIMER_MS);
    this.#timer = setTimeout(() => {
      this.#timerAt = undefined;
      this.#hasTaken = false;
      this.#session.advance(now());
      this.#goOn();
    }, delay);
  }
}

function now(): Moment {
  return { steadyMs: performance.now(), wallMs: Date.now() };
}
