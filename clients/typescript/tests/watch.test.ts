import { afterEach, beforeEach, describe, expect, it, vi } from 'vitest';

import {
  Sensor,
  StepLedger,
  Watch,
  WatchError,
  type Link,
  type LinkEvents,
  type SessionEvent,
  type Transport,
} from '../src/index.js';
import { BEGIN, listHeader, reading, textOf, untilUndefined } from './played-session.js';
import { fromHex, toHex } from './vectors.js';

/** A road whose links the test makes and ends. */
class ScriptedTransport implements Transport {
  readonly links: ScriptedLink[] = [];
  error: Error | undefined;

  open(events: LinkEvents): Link {
    if (this.error) {
      throw this.error;
    }
    const link = new ScriptedLink(events);
    this.links.push(link);
    return link;
  }

  /** The latest. */
  get link(): ScriptedLink {
    const link = this.links.at(-1);
    if (!link) {
      throw new Error('no link was asked for');
    }
    return link;
  }
}

class ScriptedLink implements Link {
  isClosed = false;
  error: Error | undefined;
  readonly #sent: string[] = [];

  constructor(readonly events: LinkEvents) {}

  send(packet: Uint8Array): void {
    if (this.error) {
      throw this.error;
    }
    this.#sent.push(toHex(packet));
  }

  close(): void {
    this.isClosed = true;
  }

  sent(): string[] {
    return this.#sent.splice(0);
  }

  hear(...packets: (Uint8Array | string)[]): void {
    for (const packet of packets) {
      this.events.packet(typeof packet === 'string' ? fromHex(packet) : packet);
    }
  }

  /** It is there, and the watch acknowledges the stop. */
  prove(): void {
    this.events.opened();
    const [stop = ''] = this.sent();
    this.hear(`${stop.slice(0, 2)} 02 00 01`);
  }
}

describe('Watch', () => {
  let transport: ScriptedTransport;
  let watch: Watch;
  let told: SessionEvent[];

  beforeEach(async () => {
    vi.useFakeTimers({ now: BEGIN });
    transport = new ScriptedTransport();
    watch = new Watch(transport, { ledger: new StepLedger(() => 0), asksWorn: false });
    told = [];
    watch.listen((event) => told.push(event));
    await Promise.resolve();
  });

  afterEach(() => {
    watch.close();
    vi.useRealTimers();
  });

  function texts(): string[] {
    return untilUndefined(() => told.shift()).map(textOf);
  }

  it('makes a link and has the watch prove it', () => {
    expect(transport.links).toHaveLength(1);
    transport.link.events.opened();
    expect(transport.link.sent()).toEqual(['14 00 00 01']);
    expect(watch.isLinked).toBe(false);
    transport.link.hear('14 02 00 01');
    expect(watch.isLinked).toBe(true);
    expect(texts()).toEqual(['linked']);
  });

  it('answers a measurement with its reading', async () => {
    transport.link.prove();
    const measured = watch.measure(Sensor.HeartRate);
    expect(transport.link.sent()).toEqual(['22 00 00 03']);
    await vi.advanceTimersByTimeAsync(15_000);
    transport.link.hear(reading(0x22, 3, 72));
    const { observation } = await measured;
    expect(observation.text(Date.now() + 4000)).toBe('72 bpm, 4 s ago');
    expect(watch.latest(Sensor.HeartRate)).toBe(observation);
  });

  it('answers two of the same question with one reading', async () => {
    transport.link.prove();
    const both = Promise.all([watch.measure(Sensor.Activity), watch.measure(Sensor.Activity)]);
    expect(transport.link.sent()).toEqual(['22 00 00 01']);
    transport.link.hear(reading(0x22, 1, 2));
    const [one, other] = await both;
    expect(one).toBe(other);
  });

  it('answers with the list, and when a stop was acknowledged', async () => {
    transport.link.prove();
    const list = watch.list();
    transport.link.hear(listHeader(0xa1, 0));
    expect((await list).entries).toEqual([]);
    const stopped = watch.stop(Sensor.Activity);
    transport.link.hear('34 02 00 01');
    await expect(stopped).resolves.toBeUndefined();
  });

  it('rejects a question that is not answered in time', async () => {
    transport.link.prove();
    const rejected = expect(watch.measure(Sensor.HeartRate, 500)).rejects.toThrow(
      new WatchError('no-answer', "no answer to the measurement of 'hr' within 0.5 s"),
    );
    await vi.advanceTimersByTimeAsync(500);
    await rejected;
  });

  it('rejects a question whose link is lost, and makes the link anew', async () => {
    watch.follow(Sensor.Activity);
    transport.link.prove();
    const measured = watch.measure(Sensor.HeartRate);
    transport.link.events.closed('gone');
    await expect(measured).rejects.toMatchObject({ reason: 'link-lost' });
    expect(transport.links).toHaveLength(1);
    await vi.advanceTimersByTimeAsync(99);
    expect(transport.links).toHaveLength(1);
    await vi.advanceTimersByTimeAsync(2);
    expect(transport.links).toHaveLength(2);
    transport.link.prove();
    expect(transport.link.sent()).toEqual(['23 00 00 01 00']);
    expect(texts().filter((text) => !text.startsWith('failed'))).toEqual([
      'linked',
      'lost: gone',
      'linked',
    ]);
  });

  it('leaves a link on which nobody answers', async () => {
    const { link } = transport;
    link.events.opened();
    await vi.advanceTimersByTimeAsync(5001);
    expect(link.isClosed).toBe(true);
    link.events.closed('too late to matter');
    link.hear('14 02 00 01');
    expect(texts()).toEqual([
      "attempt failed: no answer to the stop of 'activity' within 5 s, 100 ms",
    ]);
    await vi.advanceTimersByTimeAsync(101);
    expect(transport.links).toHaveLength(2);
  });

  it('takes what a transport or a link throws for a loss', async () => {
    transport.link.error = new Error('broken');
    transport.link.events.opened();
    expect(texts()).toEqual(['attempt failed: broken, 100 ms']);
    expect(transport.link.isClosed).toBe(true);
    transport.error = new Error('no way');
    await vi.advanceTimersByTimeAsync(101);
    expect(texts()).toEqual(['attempt failed: no way, 200 ms']);
  });

  it('counts true steps', async () => {
    transport.link.prove();
    const measured = watch.measure(Sensor.Pedometer);
    transport.link.hear(reading(0x22, 2, 100), reading(0x32, 2, 140), reading(0x32, 2, 190));
    expect(transport.link.sent()).toEqual(['22 00 00 02', '32 00 00 02']);
    expect((await measured).steps?.steps).toMatchObject({ steps: 0, isExact: true });
    expect(watch.stepsToday()).toMatchObject({ date: '2026-03-14', steps: { steps: 10 } });
    expect(StepLedger.restore(watch.steps.save(), () => 0).days).toEqual(watch.steps.days);
  });

  it('tells the session when there is nothing left to read', async () => {
    watch.follow(Sensor.Pedometer);
    transport.link.prove();
    transport.link.hear(reading(0x22, 2, 0), reading(0x32, 2, 0));
    for (let i = 0; i < 100; ++i) {
      transport.link.hear(reading(0x32, 2, 0));
      await vi.advanceTimersByTimeAsync(1);
    }
    expect(watch.latest(Sensor.Pedometer)?.isUnbroken).toBe(true);
    for (let i = 0; i < 100; ++i) {
      transport.link.hear(reading(0x32, 2, 0));
    }
    await vi.advanceTimersByTimeAsync(1);
    expect(watch.latest(Sensor.Pedometer)?.isUnbroken).toBe(false);
  });

  it('has events to iterate, until it is closed', async () => {
    const seen = (async () => {
      const all: string[] = [];
      for await (const event of watch.events()) {
        all.push(textOf(event));
      }
      return all;
    })();
    await Promise.resolve();
    transport.link.prove();
    transport.link.hear(reading(0x02, 3, 71));
    await vi.advanceTimersByTimeAsync(0);
    transport.link.hear(reading(0x02, 3, 72));
    watch.close();
    expect(await seen).toEqual(['linked', 'hr 71', 'hr 72']);
    expect(transport.link.isClosed).toBe(true);
  });

  it('lets a listener ask, and end its listening', () => {
    const unlisten = watch.listen((event) => {
      if (event.kind === 'linked') {
        unlisten();
        watch.follow(Sensor.HeartRate);
      }
    });
    transport.link.prove();
    expect(transport.link.sent()).toEqual(['22 00 00 03']);
  });

  it('rejects what is asked when it is closed, or after that', async () => {
    const rejected = expect(watch.measure(Sensor.Activity)).rejects.toThrow('the watch was closed');
    watch.close();
    await rejected;
    await expect(watch.list()).rejects.toMatchObject({ reason: 'closed' });
    await vi.advanceTimersByTimeAsync(60_000);
    expect(transport.links).toHaveLength(1);
    expect(vi.getTimerCount()).toBe(0);
  });
});
