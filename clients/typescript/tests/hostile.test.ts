// Packets, calls and stored texts that nobody in his right mind makes.
import { expect, it } from 'vitest';

import { decode, DecodeError, StepLedger } from '../src/index.js';
import { PlayedSession, textOf } from './played-session.js';
import { Random } from './random.js';
import { fromHex, ledgers, sentBy, vectors } from './vectors.js';

const SEEDS = [1, 2, 3, 4, 5];
const TURNS = 3000;
const PACKETS = [...sentBy('watch'), ...vectors('malformed.json')].map(({ bytes }) =>
  fromHex(bytes),
);

/** One of the vectors, with some bytes changed, or cut short. */
function somePacket(random: Random): Uint8Array {
  const packet = Uint8Array.from(PACKETS[random.next(0, PACKETS.length - 1)] ?? []);
  for (let times = random.next(0, 3); times > 0; --times) {
    packet[random.next(0, packet.length)] = random.next(0, 255);
  }
  return random.oneIn(10) ? packet.subarray(0, random.next(0, packet.length)) : packet;
}

function act(played: PlayedSession, random: Random): void {
  const { session, now } = played;
  const sensor = random.next(0, 5);
  const timeoutMs = random.oneIn(2) ? random.next(0, 5000) : undefined;
  const calls = [
    () => {
      session.connected(now, random.oneIn(2) ? 'run' : 'no name');
    },
    () => {
      session.lost('gone', now);
    },
    () => session.measure(sensor, now, timeoutMs),
    () => session.list(now, timeoutMs),
    () => session.stop(sensor, now, timeoutMs),
    () => {
      session.follow(sensor, now, timeoutMs);
    },
    () => {
      played.sleep(random.next(0, 10_000));
    },
    () => {
      played.until(now.steadyMs + random.next(0, 30_000));
    },
  ];
  if (random.oneIn(4)) {
    calls[random.next(0, calls.length - 1)]?.();
  } else {
    session.take(somePacket(random), now);
  }
}

it.each(SEEDS)('a session holds its contract whatever comes, seed %i', (seed) => {
  const random = new Random(seed);
  const played = new PlayedSession({ provesLink: seed % 2 === 0 });
  const ended = new Set<number>();
  let isLinked = false;
  for (let turn = 0; turn < TURNS; ++turn) {
    act(played, random);
    for (const event of played.events()) {
      const request = 'request' in event ? event.request : 0;
      expect(ended.has(request), `${textOf(event)} in turn ${turn}`).toBe(false);
      if (request !== 0) {
        ended.add(request);
      }
      if (event.kind === 'linked' || event.kind === 'lost') {
        expect(isLinked, `${event.kind} in turn ${turn}`).toBe(event.kind === 'lost');
        isLinked = event.kind === 'linked';
      }
    }
    expect(isLinked).toBe(played.session.isLinked);
    expect(played.sent().length).toBeLessThan(20);
  }
  expect(ended.size).toBeGreaterThan(50);
});

it.each(SEEDS)('the decoder takes a packet or says what is wrong with it, seed %i', (seed) => {
  const random = new Random(seed);
  const found = { packets: 0, errors: 0 };
  for (let turn = 0; turn < TURNS; ++turn) {
    try {
      decode(somePacket(random));
      found.packets += 1;
    } catch (error) {
      expect(error).toBeInstanceOf(DecodeError);
      found.errors += 1;
    }
  }
  expect(Math.min(found.packets, found.errors)).toBeGreaterThan(TURNS / 10);
});

it.each(SEEDS)('a stored text that was changed is damaged, seed %i', (seed) => {
  const random = new Random(seed);
  for (const { text } of ledgers()) {
    const stored = text.map((line) => `${line}\n`).join('');
    for (let turn = 0; turn < 50; ++turn) {
      const at = random.next(0, stored.length - 1);
      const changed = String.fromCharCode(random.next(0, 300));
      const damaged = stored.slice(0, at) + changed + stored.slice(at + random.next(1, 3));
      if (damaged !== stored) {
        expect(() => StepLedger.restore(damaged, () => 0), damaged).toThrow(/^it is /);
      }
    }
  }
});
