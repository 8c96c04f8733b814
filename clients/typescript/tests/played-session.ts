import {
  sensorName,
  Session,
  StepLedger,
  type Moment,
  type SessionEvent,
  type SessionOptions,
} from '../src/index.js';
import { fromHex, toHex } from './vectors.js';

/** Noon, UTC. */
export const BEGIN = 1773489600000;

/** A link that is not put to the proof, and the packets alone that a case is about. */
export function trusting(countsSteps = false): SessionOptions {
  return { provesLink: false, asksWorn: false, countsSteps };
}

/** A session in a world of the test's: its time moves when the test says so, and packets are values. */
export class PlayedSession {
  readonly session: Session;
  #elapsed = 0;

  constructor(
    options: SessionOptions = {},
    readonly begin = BEGIN,
  ) {
    this.session = new Session(options, new StepLedger(() => 0));
  }

  /** The present. */
  get now(): Moment {
    return { steadyMs: this.#elapsed, wallMs: this.begin + this.#elapsed };
  }

  /** Lets time pass up to so many ms, and calls advance() there and at each deadline before. */
  until(elapsed: number): void {
    for (;;) {
      const deadline = this.session.deadlineMs;
      if (deadline === undefined || deadline >= elapsed) {
        break;
      }
      this.#elapsed = Math.max(this.#elapsed, deadline);
      this.session.advance(this.now);
    }
    this.#elapsed = elapsed;
    this.session.advance(this.now);
  }

  /** Lets time pass without a call: the program is held up. */
  sleep(length: number): void {
    this.#elapsed += length;
  }

  /** The watch sends the packets one after another, and is heard at once. */
  hear(...packets: (Uint8Array | string)[]): void {
    for (const packet of packets) {
      this.session.take(typeof packet === 'string' ? fromHex(packet) : packet, this.now);
      this.session.advance(this.now);
    }
  }

  /** What was sent since it was asked before: "12 00 00 03". */
  sent(): string[] {
    return untilUndefined(() => this.session.nextPacket()).map(toHex);
  }

  /** What was told since it was asked before. */
  events(): SessionEvent[] {
    return untilUndefined(() => this.session.nextEvent());
  }

  /** The same in words, see {@link textOf}. */
  texts(): string[] {
    return this.events().map(textOf);
  }
}

export function untilUndefined<T>(next: () => T | undefined): T[] {
  const all: T[] = [];
  for (let one = next(); one !== undefined; one = next()) {
    all.push(one);
  }
  return all;
}

/**
 * "linked", "lost: WHY", "attempt failed: WHY, 100 ms", "hr 72", "hr 72 #3" for an answer, "steps 35 ?"
 * for a total that does not settle them, "list of 2 #1", "stopped activity #1", "failed hr #1: WHY",
 * "nonsense: WHAT".
 */
export function textOf(event: SessionEvent): string {
  const number = 'request' in event && event.request !== 0 ? ` #${event.request}` : '';
  switch (event.kind) {
    case 'linked':
      return 'linked';
    case 'lost':
      return `lost: ${event.why.text}`;
    case 'attempt-failed':
      return `attempt failed: ${event.why.text}, ${event.pauseMs} ms`;
    case 'reading': {
      const { sensor, value } = event.reading;
      return `${sensorName(sensor)} ${Math.round(value)}${event.isSettled ? '' : ' ?'}${number}`;
    }
    case 'list':
      return `list of ${event.list.entries.length}${number}`;
    case 'stopped':
      return `stopped ${sensorName(event.sensor)}${number}`;
    case 'failed': {
      const what = event.sensor === undefined ? 'list' : sensorName(event.sensor);
      return `failed ${what}${number}: ${event.why.text}`;
    }
    case 'nonsense':
      return `nonsense: ${event.text}`;
  }
}

/** A reading of 1,000 s after the epoch; `first` has its flags and command. */
export function reading(first: number, sensor: number, value: number): Uint8Array {
  const packet = fromHex('00 00 0E 00 11 00 00 00 00 00 0F 42 40 00 00 00 00 00');
  packet[0] = first;
  packet[3] = sensor;
  new DataView(packet.buffer).setFloat32(13, value);
  return packet;
}

export function listHeader(first: number, count: number): Uint8Array {
  const packet = fromHex('00 80 0A 03 00 00 AA BB CC DD EE FF 00');
  packet[0] = first;
  packet[12] = count;
  return packet;
}

export function listEntry(first: number, position: number, sensor: number): Uint8Array {
  const tail = '01 43 48 00 00 3F 80 00 00 00 00 00 00 00 00 3A 98 00 00 00';
  return Uint8Array.of(first, position, 0x15, 0x40 + sensor, sensor, ...fromHex(tail));
}
