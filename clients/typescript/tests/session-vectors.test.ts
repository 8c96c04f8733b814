// The exchanges of the vectors with a session as the phone: it asks what the phone asks there, with
// flags of its own, and hears what the watch says.
import { describe, expect, it } from 'vitest';

import { sensorName } from '../src/index.js';
import { PlayedSession, textOf, trusting } from './played-session.js';
import {
  exchanges,
  fromHex,
  sentBy,
  vectors,
  type Exchange,
  type ExchangeEvent,
} from './vectors.js';

function isTotal({ packet }: ExchangeEvent): boolean {
  return packet?.kind === 'reading' && packet['sensor'] === 2;
}

class PlayedExchange {
  answers = 0;
  readonly #events: ExchangeEvent[];
  readonly #played: PlayedSession;
  readonly #requests = new Map<number, number>(); // by the event of the exchange
  readonly #flags = new Map<string, number>(); // last sent, by command and sensor
  readonly #ended = new Set<number>();
  #isFirstTotal = true;

  constructor({ events, begins }: Exchange) {
    this.#events = events;
    this.#played = new PlayedSession(trusting(true), 1000 * begins);
  }

  play(): void {
    this.#events.forEach((event, index) => {
      this.#played.until(event.at_ms);
      if (event.link !== undefined) {
        this.#link(event.link);
      } else if (event.from === 'phone' && event.packet) {
        this.#ask(index, event.packet.kind, Number(event.packet['sensor'] ?? 0));
      } else if (event.from === 'watch') {
        this.#hear(event);
      }
      this.#see(event, index);
    });
  }

  #link(link: 'up' | 'lost'): void {
    const { session, now } = this.#played;
    if (link === 'up') {
      session.connected(now);
    } else {
      session.lost('lost', now);
    }
    this.#isFirstTotal = true;
  }

  #ask(index: number, kind: string, sensor: number): void {
    const { session, now } = this.#played;
    if (kind === 'list') {
      this.#requests.set(index, session.list(now));
    } else if (sensorName(sensor) === 'unknown') {
      return; // a session asks for no such sensor
    } else if (kind === 'measure') {
      this.#requests.set(index, session.measure(sensor, now));
    } else if (kind === 'stop' && this.#events[index + 2]?.packet?.kind === 'start') {
      session.follow(sensor, now); // which sends the start by itself
    } else if (kind === 'stop') {
      this.#requests.set(index, session.stop(sensor, now));
    }
  }

  /** With the flags that the session has sent, where a request of that kind is known. */
  #hear(event: ExchangeEvent): void {
    const bytes = fromHex(event.bytes ?? '');
    const [first = 0] = bytes;
    const command = first & 0x0f;
    const sensor = command === 1 ? 0 : Number(event.packet?.['sensor']);
    const flags = this.#flags.get(`${command} ${sensor}`);
    if (flags !== undefined) {
      bytes[0] = (first & 0xcf) | (flags << 4);
    }
    if (isTotal(event)) {
      if (event.count === undefined && !this.#isFirstTotal) {
        this.#played.hear(''); // what does not tell its count follows something that was missed
      }
      this.#isFirstTotal = false;
    }
    this.#played.hear(bytes);
    if (event.walked !== undefined) {
      const { days } = this.#played.session.steps;
      expect(days.reduce((sum, { steps }) => sum + steps, 0)).toBe(event.walked);
    }
  }

  /** Each request ends once, with its last reply in the exchange, unless the link was lost. */
  #see(event: ExchangeEvent, index: number): void {
    for (const told of this.#played.events()) {
      const ended = 'request' in told ? told.request : 0;
      if (ended === 0) {
        continue;
      }
      const isSteps = told.kind === 'reading' && told.reading.sensor === 2;
      const isExpected = isSteps || event.answers !== undefined || told.kind === 'failed';
      expect(isExpected && !this.#ended.has(ended), textOf(told)).toBe(true);
      this.#ended.add(ended);
    }
    for (const sent of this.#played.sent().map(fromHex)) {
      const [first = 0, , , sensor = 0] = sent;
      this.#flags.set(`${first & 0x0f} ${sensor}`, first >> 4);
    }
    const request = this.#requests.get(event.answers ?? -1);
    const isLast = !this.#events.slice(index + 1).some(({ answers }) => answers === event.answers);
    if (request !== undefined && isLast && !isTotal(event)) {
      expect([...this.#ended]).toContain(request);
      this.answers += 1;
    }
  }
}

describe('each exchange is what it says', () => {
  it.each(exchanges())('$name', (exchange) => {
    new PlayedExchange(exchange).play();
  });

  it('and they have more than 15 answers', () => {
    const answers = exchanges().map((exchange) => {
      const played = new PlayedExchange(exchange);
      played.play();
      return played.answers;
    });
    expect(answers.reduce((sum, one) => sum + one)).toBeGreaterThan(15);
  });
});

describe('malformed packets are told as such and end nothing', () => {
  it.each(vectors('malformed.json'))('$name', ({ bytes, error }) => {
    const played = new PlayedSession();
    played.session.connected(played.now);
    played.sent();
    played.hear(bytes);
    const texts = played.texts();
    expect(texts).toHaveLength(1);
    expect(texts[0]).toContain(`nonsense: ${error?.field ?? ''}`);
    expect(played.sent()).toEqual([]);
  });
});

it('every reply is taken without a request', () => {
  const played = new PlayedSession(trusting());
  played.session.connected(played.now);
  played.texts();
  for (const { name, bytes, packet } of sentBy('watch')) {
    played.hear(bytes);
    expect(played.texts(), name).toHaveLength(packet?.kind === 'reading' ? 1 : 0);
  }
});
