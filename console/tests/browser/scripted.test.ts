// The page in a browser, against a watch that a script plays: what no real one does on demand.
import type { CDPSession } from 'playwright-core';
import { describe, expect, it, vi } from 'vitest';

import { visitorOf } from './visitor.js';
import { MISSING, PATIENCE, skippedWithout, World } from './world.js';

const BEGIN = Date.UTC(2026, 0, 31, 12);
const READINGS = 36_000; // an hour, ten a second
const PORTION = 600;
/** What workInPage() takes on an idle machine of today. */
const WORK_MS = 2;
/** Of what is timed: the share that no other process has come between. */
const QUIET = 0.25;
const LIST_WITHOUT_ENTRIES = Buffer.from('800a03000000000000000000', 'hex');
const WORN = Buffer.from('12000e041100000000f680b3e83f80000000', 'hex');

function status(): object {
  const item = (name: string, number: number) => ({
    item: name,
    number,
    source: 'manual',
    problem: null,
    subscription: null,
    kept_by: [],
    last_reading: null,
    delivered: 0,
  });
  return {
    ok: true,
    version: 1,
    status: {
      time: new Date(BEGIN).toISOString(),
      service: {
        version: '0.2.0',
        pid: 1,
        user: 1,
        since: new Date(BEGIN).toISOString(),
        for_ms: 0,
      },
      directories: { state: '/s', runtime: '/r' },
      host: null,
      link: {
        state: 'up',
        set_by: null,
        key: 0,
        host_state: 'none',
        packets_in: 0,
        bytes_in: 0,
        packets_out: 0,
        bytes_out: 0,
        refused_hosts: 0,
        queue_full: 0,
      },
      items: [
        item('heart_rate', 7),
        item('pedometer', 2),
        item('activity', 23),
        item('gesture', 1),
      ],
      power_locks: [],
      preferences: {},
    },
  };
}

/** Runs in the page: a watch there, since so many messages through a browser's debugging port would take minutes. */
function playInPage({ first, begin }: { first: object; begin: number }): void {
  let observe: (message: object) => void = () => undefined;
  class FakeSocket extends EventTarget {
    static readonly OPEN = 1;
    readonly readyState = 1;
    binaryType = '';

    constructor(
      readonly url: string,
      readonly protocol: string,
    ) {
      super();
      setTimeout(() => this.dispatchEvent(new Event('open')));
    }

    send(data: unknown): void {
      const { request } = (typeof data === 'string' ? JSON.parse(data) : {}) as {
        request?: string;
      };
      if (request === 'observe') {
        observe = (message) => {
          this.tell(message);
        };
      }
      const answer = request === 'ping' ? { pong: true } : { ok: true, version: 1 };
      if (request !== undefined) {
        // Later, as a real one does: whoever asks is to have gone on meanwhile.
        setTimeout(() => {
          this.tell(request === 'observe' ? first : answer);
        });
      }
    }

    tell(message: object): void {
      this.dispatchEvent(new MessageEvent('message', { data: JSON.stringify(message) }));
    }

    close(): void {
      // Nobody is there to answer.
    }
  }
  /** Readings of all items, the one of that number and those after it. */
  const play = (from: number, to: number) => {
    for (let count = from; count < to; count += 1) {
      const time = new Date(begin + 100 * count).toISOString();
      const event = 'reading';
      const heart = Math.round(90 + 40 * Math.sin(count / 300));
      observe({ event, item: 'heart_rate', time, values: { 'hrm/heart_rate': heart } });
      const steps = { 'pedometer/total_steps': count, 'pedometer/speed': 5 + (count % 50) / 10 };
      observe({ event, item: 'pedometer', time, values: steps });
      observe({
        event,
        item: 'activity',
        time,
        values: { 'activity/status': (count >> 8) % 4 },
      });
    }
  };
  Object.assign(window, { WebSocket: FakeSocket, play });
}

describe.skipIf(MISSING.length > 0)('the console with a scripted watch', () => {
  const visitor = visitorOf(() => new World());

  async function goOn(): Promise<void> {
    await visitor.page.goto(`${visitor.world.url}/#token=${visitor.token}`);
    await visitor.page.waitForSelector('.pill:text-is("Live")');
  }

  /** A watch that is idle. */
  async function playControl(): Promise<void> {
    await visitor.page.routeWebSocket(/\/control$/, (socket) => {
      socket.onMessage((message) => {
        const { request } = JSON.parse(message.toString()) as { request: string };
        socket.send(JSON.stringify(request === 'ping' ? { pong: true } : status()));
      });
    });
  }

  it('marks packets of the watch that are none, and says what is wrong with them', async () => {
    await visitor.fresh();
    await playControl();
    await visitor.page.routeWebSocket(/\/link$/, (socket) => {
      socket.onMessage(() => {
        socket.send(Buffer.from([0x14, 2]));
        const infinite = Buffer.from('02000e0311000000000000000000007f800000', 'hex').subarray(
          0,
          18,
        );
        infinite.writeFloatBE(Infinity, 13);
        socket.send(infinite);
      });
    });
    await goOn();
    const rows = visitor.page.locator('.packets tr.wrong');
    await vi.waitFor(async () => {
      const texts = await rows.allTextContents();
      expect(texts.join('\n')).toMatch(
        /malformed ⚠ packet size \(offset 2\): expected 4, 13, 18 or 25 bytes, found 2 bytes/,
      );
      expect(texts.join('\n')).toMatch(
        /malformed ⚠ value \(offset 13\): expected a finite number, found infinity/,
      );
    }, PATIENCE);
  });

  it('says that it measures, until what it has asked already is answered', async () => {
    await visitor.fresh();
    await playControl();
    let answer = (): void => undefined;
    await visitor.page.routeWebSocket(/\/link$/, (socket) => {
      socket.onMessage((message) => {
        const [first = 0] = Buffer.from(message);
        if (first % 16 === 1) {
          socket.send(Buffer.from([0x80 | first, ...LIST_WITHOUT_ENTRIES]));
        } else if (first % 16 === 4) {
          socket.send(Buffer.from([first, 2, 0, 1]));
        }
      });
      answer = () => {
        socket.send(WORN);
      };
    });
    await goOn();
    await visitor.page.waitForSelector('.packets tr:has-text("measure wear")'); // by the page itself
    await visitor.page.click('#measure-4');
    await visitor.page.waitForSelector('#measure-4:disabled:text-is("Measuring …")');
    answer();
    await visitor.page.waitForSelector('#measure-4:enabled:text-is("Measure")');
  });

  it('takes hours of ten readings a second, with flat memory and short frames', async () => {
    await visitor.fresh();
    await visitor.page.addInitScript(playInPage, { first: status(), begin: BEGIN });
    await goOn();
    await visitor.page.click('#tab-watch');
    await visitor.page.waitForSelector('#panel-watch canvas');
    const cdp = await visitor.context.newCDPSession(visitor.page);
    let count = 0;
    const play = async (more: number) => {
      await visitor.page.evaluate(
        async ([from, to, portion]) => {
          const { play } = window as unknown as { play: (from: number, to: number) => void };
          for (let at = from; at < to; at += portion) {
            play(at, Math.min(at + portion, to));
            await new Promise((resolve) => setTimeout(resolve)); // timers and frames have their turn
          }
        },
        [count, count + more, PORTION] as const,
      );
      count += more;
    };
    const hour = async () => {
      await play(READINGS);
      const last = String(Math.round(90 + 40 * Math.sin((count - 1) / 300)));
      await vi.waitFor(async () => {
        expect(await visitor.page.textContent('#now-heart .value')).toBe(last);
      }, PATIENCE);
    };
    await hour();
    await visitor.page.focus('#panel-watch .plot');
    for (let zoom = 0; zoom < 20; zoom += 1) {
      await visitor.page.keyboard.press('-'); // until the whole hour is seen
    }
    const first = await heapOf(cdp);
    await hour();
    await visitor.page.evaluate(() => {
      performance.clearMeasures('frame');
    });
    const work: number[] = [];
    for (let step = 0; step < 40; step += 1) {
      await play(1);
      await visitor.page.keyboard.press(step % 2 === 0 ? 'ArrowLeft' : 'ArrowRight');
      work.push(await visitor.page.evaluate(workInPage));
    }
    const frames = await visitor.page.evaluate(() =>
      performance.getEntriesByName('frame').map(({ duration }) => duration),
    );
    const second = await heapOf(cdp);
    const [median, slow] = [quantile(frames, 0.5), quantile(frames, 0.95)];
    const slowness = Math.max(1, quantile(work, QUIET) / WORK_MS);
    console.log(
      `an hour of 10 readings/s in ${frames.length} frames: ${median.toFixed(1)} ms each, p95 ${slow.toFixed(1)} ms; ` +
        `heap ${(first / 1e6).toFixed(1)} MB after an hour, ${(second / 1e6).toFixed(1)} MB after two; ` +
        `this machine takes ${slowness.toFixed(1)} times as long as an idle one`,
    );
    expect(frames.length).toBeGreaterThan(5);
    const quiet = quantile(frames, QUIET) / slowness;
    expect(quiet, 'the work for a frame, in ms of an idle machine').toBeLessThan(20);
    expect(second - first, 'bytes more after the second hour').toBeLessThan(3e6);
  }, 120_000);
});

/** Runs in the page: how long a fixed piece of work takes there, in ms, after a moment for a frame. */
async function workInPage(): Promise<number> {
  await new Promise((resolve) => setTimeout(resolve, 50));
  const begin = performance.now();
  let sum = 0;
  for (let count = 0; count < 1e6; count += 1) {
    sum += Math.sqrt(count);
  }
  return sum > 0 ? performance.now() - begin : NaN;
}

function quantile(values: number[], share: number): number {
  return values.sort((one, other) => one - other)[Math.floor(values.length * share)] ?? Infinity;
}

async function heapOf(cdp: CDPSession): Promise<number> {
  await cdp.send('HeapProfiler.collectGarbage');
  await cdp.send('Performance.enable');
  const { metrics } = await cdp.send('Performance.getMetrics');
  return metrics.find(({ name }) => name === 'JSHeapUsedSize')?.value ?? NaN;
}

skippedWithout('the console with a scripted watch');
