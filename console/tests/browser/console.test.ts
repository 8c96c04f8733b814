// The page in a browser, against the real gateway and the real service on the recorded run.
import { mkdirSync, readFileSync } from 'node:fs';
import { createRequire } from 'node:module';

import type { Browser, BrowserContext, Page } from 'playwright-core';
import { afterAll, afterEach, beforeAll, describe, expect, it, vi } from 'vitest';

import {
  endOf,
  launch,
  MISSING,
  newPage,
  PATIENCE,
  SEEN,
  TREE,
  World,
  type Watched,
} from './world.js';

const AXE = readFileSync(createRequire(import.meta.url).resolve('axe-core/axe.min.js'), 'utf8');
const ONE_DIGIT = { minimumFractionDigits: 1, maximumFractionDigits: 1 };
/** What takes many readings, one a second. */
const LONG = { ...PATIENCE, timeout: 80_000 };
const TOKEN_TEXT = /^[\w-]{40,}$/;

let world: World;
let browser: Browser;
let token: string;

describe.skipIf(MISSING.length > 0)('the console in a browser', () => {
  let context: BrowserContext;
  let watched: Watched;
  let page: Page;

  beforeAll(async () => {
    mkdirSync(SEEN, { recursive: true });
    world = new World({ PARVANE_TRACE: `${TREE}recordings/rest-then-run-49s-1hz.csv` });
    [browser] = await Promise.all([launch(), world.startService(), world.startGateway()]);
    token = await world.token('tester');
    expect(token).toMatch(TOKEN_TEXT);
  }, 90_000);

  afterAll(async () => {
    await browser.close();
    await world.end();
  });

  /** A browser of its own, which nobody has signed in. */
  async function fresh(options: Parameters<Browser['newContext']>[0] = {}): Promise<void> {
    context = await browser.newContext({ viewport: { width: 1280, height: 900 }, ...options });
    watched = await newPage(context);
    page = watched.page;
  }

  async function open(options: Parameters<Browser['newContext']>[0] = {}): Promise<void> {
    await fresh(options);
    await page.goto(`${world.url}/#token=${token}`);
    await page.waitForSelector('#seat');
  }

  afterEach(async () => {
    const { problems, hosts } = watched;
    await context.close();
    expect(problems, 'what the page complained of').toEqual([]);
    expect([...hosts], 'whom the page asked').toEqual([`127.0.0.1:${world.port}`]);
  });

  async function textOf(selector: string): Promise<string> {
    return (await page.textContent(selector)) ?? '';
  }

  /** A row of the packet log that contains all of these words. */
  function expectRow(words: string[], patience = {}): Promise<string> {
    return vi.waitFor(
      async () => {
        const rows = await page.locator('.packets tbody tr').allTextContents();
        const first = rows.find((row) => words.every((word) => row.includes(word)));
        expect(first, `a packet with ${words.join(', ')}`).toBeDefined();
        return first ?? '';
      },
      { ...PATIENCE, ...patience },
    );
  }

  function expectText(selector: string, text: RegExp): Promise<void> {
    return vi.waitFor(async () => {
      expect(await textOf(selector), selector).toMatch(text);
    }, PATIENCE);
  }

  async function linked(): Promise<void> {
    await expectText('.seat', /This page is the watch’s phone;/);
  }

  it('opens with the token, which leaves the address, and shows a beating heart', async () => {
    await open();
    expect(new URL(page.url()).hash).toBe('');
    await page.waitForSelector('#now-heart canvas');
    await expectText('#now-heart .value', /^\d+$/);
    const seen = await page.evaluate(() => Math.round(performance.now()));
    const paint = await vi.waitFor(async () => {
      const at = await page.evaluate(
        () => performance.getEntriesByName('first-contentful-paint')[0]?.startTime,
      );
      expect(at, 'the time of the first paint').toBeDefined();
      return at ?? Infinity;
    }, PATIENCE);
    console.log(
      `first paint ${Math.round(paint)} ms, a heart rate with its plot ${seen} ms after the page was asked for`,
    );
    expect(paint, 'first paint, which takes 300 ms at most on an idle machine').toBeLessThan(
      10_000,
    );
    await expectText('.pill', /^Live$/);
  });

  it('is small, and is stored for good but for its first page', async () => {
    await fresh();
    const sizes = new Map<string, number>();
    const waiting: Promise<void>[] = [];
    page.on('response', (response) => {
      waiting.push(
        response
          .request()
          .sizes()
          .then(({ responseBodySize }) => {
            const { pathname } = new URL(response.url());
            sizes.set(pathname, responseBodySize);
            const stored = response.headers()['cache-control'];
            if (pathname.startsWith('/assets/')) {
              expect(stored).toBe('public, max-age=31536000, immutable');
            } else if (pathname === '/') {
              expect(stored).toBe('no-cache');
            }
          }),
      );
    });
    await page.goto(world.url);
    await page.waitForSelector('#token');
    await page.waitForLoadState('networkidle');
    await Promise.all(waiting);
    const all = [...sizes.values()].reduce((sum, size) => sum + size, 0);
    const script = [...sizes].find(([path]) => path.endsWith('.js'))?.[1] ?? 0;
    console.log(`the page has ${all} bytes compressed, ${script} of them script`);
    expect(script).toBeGreaterThan(10_000);
    expect(all).toBeLessThan(150_000);
    const first = await fetch(world.url);
    const again = await fetch(world.url, {
      headers: { 'If-None-Match': first.headers.get('etag') ?? '' },
    });
    expect(again.status, 'what has not changed').toBe(304);
    expect(await first.text(), 'the page without compression').toContain(
      '<title>Parvane console</title>',
    );
  });

  it('shows the values that an observer without a page is told', async () => {
    await open();
    await linked();
    await page.click('#seat'); // the sensors are on without a phone, too
    await expectText('.seat', /has left the watch/);
    await world.control('replay', 'seek', '25'); // the runner has rested, and runs on
    let speed = '';
    let heartRates = 0;
    const socket = world.observe(token, ({ event, item, values }) => {
      if (event === 'reading' && item === 'pedometer') {
        const told = (values as Record<string, number>)['pedometer/speed'] ?? NaN;
        speed = told.toLocaleString('en', ONE_DIGIT); // as the page writes it; toFixed() has 1.1 for 1.15
      }
      heartRates += event === 'reading' && item === 'heart_rate' ? 1 : 0;
    });
    const equal = new Set<string>();
    await vi.waitFor(async () => {
      const [before, shown, after] = [speed, await textOf('#now-speed .value'), speed];
      expect(shown, `the speed, which an observer was told as ${before}`).toBe(before);
      equal.add(after === before ? shown : '');
      equal.delete('');
      expect([...equal].length, 'different speeds, which both were told').toBeGreaterThan(3);
      expect(heartRates, 'readings of a sensor that no phone has on').toBeGreaterThan(3);
    }, LONG);
    socket.close();
  });

  it('measures a heart rate for 15 s, with a ring', async () => {
    await open();
    await linked();
    await page.click('#measure-heart');
    await expectText('#heart .ring-number', /^\d+ s$/);
    const offset = () =>
      page.$eval('.ring-on', (ring) => Number.parseFloat(getComputedStyle(ring).strokeDashoffset));
    const before = await offset();
    await vi.waitFor(async () => {
      expect(await offset(), 'the ring fills').toBeLessThan(before);
    }, PATIENCE);
    expect(await page.isDisabled('#measure-heart')).toBe(true);
    await expectText('#heart .result', /^\d+ bpm, (just now|\d+ s ago), worn$/);
    const row = await expectRow(['reading', 'hr,', 'measured']);
    expect(row, 'the time of the answer').toMatch(/[1-9]\d\.\d\d s$/);
    const value = /([\d.]+) bpm/.exec(row)?.[1];
    expect(await textOf('#heart .ring-number')).toBe(value);
  });

  it('lists the sensors, and has a button for each request', async () => {
    await open();
    await expectText('#sensors h2', /AA:BB:CC:DD:EE:0F/);
    await expectText('#sensors tbody', /Heart rate.*bpm.*Worn state.*Activity.*Steps/s);
    await page.click('#list');
    await expectText('.toast', /has told its sensors/);
    for (const [sensor, name] of [
      [1, 'activity'],
      [2, 'steps'],
      [4, 'wear'],
    ] as const) {
      // What the page itself is measuring just then is not asked for again.
      await vi.waitFor(async () => {
        await page.click('#packet-clear');
        await page.click(`#measure-${sensor}`);
        await page.waitForSelector(`#measure-${sensor}:text-is("Measure")`);
        await expectRow(['phone →', 'measure', name], { timeout: 3000 });
      }, LONG);
      await expectRow(['watch →', 'reading', name]);
    }
    await page.click('#follow-1');
    await expectRow(['phone →', 'stop', 'activity']);
    const stopped = await expectRow(['watch →', 'stop-ack', 'activity']);
    expect(stopped, 'the time of the answer').toMatch(/\d ms$/);
    await expectText('#follow-1', /^Follow$/);
    await page.click('#packet-clear');
    await page.click('#follow-1');
    await expectRow(['phone →', 'start', 'activity']);
    await expectText('#follow-1', /^Stop$/);
    await expectText('#activity .result', /(still or other|running), since/);
    expect(await page.getAttribute('.band', 'aria-label')).toMatch(/from \d/);
  });

  it('tells the steps really walked beside the number on the wire', async () => {
    await open();
    await linked();
    await page.click('#measure-2');
    await expectText('#wire-steps', /^[\d,]+$/);
    await expectText('#true-steps', /^[\d,]+$/);
    const wire = (await textOf('#wire-steps')).replaceAll(',', '');
    await expectRow(['watch →', `steps, total ${wire},`]);
    await page.click('#steps summary');
    expect(await page.isVisible('#steps details p')).toBe(true);
  });

  it('sends bytes as they are, and explains what is wrong with packets', async () => {
    await open();
    await linked();
    const send = async (bytes: string) => {
      await page.fill('#raw', bytes);
      await page.click('#raw-send');
    };
    await send('0f 00 00 01');
    await expectRow(['phone →', 'dropped', 'there is no command 15']);
    await send('34 00 00 01');
    await expectRow(['watch →', 'stop-ack', 'flags 3']);
    await send('1');
    await expectText('#packets [role=alert]', /half a byte/);
    await page.selectOption('#raw-sample', '01 00 00 00');
    expect(await page.inputValue('#raw')).toBe('01 00 00 00');
  });

  it('filters, pauses, copies, saves and clears packets', async () => {
    await open({ permissions: ['clipboard-read', 'clipboard-write'] });
    await linked();
    await expectRow(['watch →', 'entry']);
    await page.fill('#packet-filter', 'list-header');
    await vi.waitFor(async () => {
      const rows = await page.locator('.packets tbody tr').allTextContents();
      expect(rows.length).toBeGreaterThan(0);
      expect(rows.filter((row) => !row.includes('list-header'))).toEqual([]);
    }, PATIENCE);
    await page.click('#packet-copy');
    await expectText('.toast', /packets? copied/);
    expect(await page.evaluate(() => navigator.clipboard.readText())).toMatch(/\t<\t.*list-header/);
    await page.fill('#packet-filter', '');
    await page.click('#packet-pause');
    const count = await textOf('#packets [role=status]');
    expect(count).toMatch(/paused/);
    await page.click('#list');
    await expectText('.toast', /has told its sensors/);
    expect(await textOf('#packets [role=status]'), 'while it is paused').toBe(count);
    await page.click('#packet-pause');
    await vi.waitFor(async () => {
      expect(await textOf('#packets [role=status]')).not.toBe(count);
    }, PATIENCE);
    const saved = async (button: string) => {
      const [download] = await Promise.all([page.waitForEvent('download'), page.click(button)]);
      return readFileSync(await download.path());
    };
    expect((await saved('#packet-pcapng')).readUInt32LE(0)).toBe(0x0a0d0d0a);
    const packets = JSON.parse((await saved('#packet-json')).toString()) as { from: string }[];
    expect(new Set(packets.map(({ from }) => from))).toEqual(new Set(['phone', 'watch']));
    await vi.waitFor(async () => {
      await page.click('#packet-clear');
      expect(await textOf('#packets [role=status]')).toMatch(/^\d of \d packets/); // some have come since
    }, PATIENCE);
  });

  it('has its views in tabs, which keys move between', async () => {
    await open();
    await page.focus('#tab-phone');
    await page.keyboard.press('ArrowRight');
    expect(new URL(page.url()).hash).toBe('#watch');
    expect(await page.getAttribute('#tab-watch', 'aria-selected')).toBe('true');
    await page.waitForSelector('#panel-watch canvas');
    await page.keyboard.press('ArrowRight');
    expect(await page.isVisible('#panel-phone')).toBe(true);
    await page.goto(`${world.url}/#watch`);
    await page.waitForSelector('#panel-watch canvas');
  });

  it('tells a second tab why it is not the phone, and shows it the watch', async () => {
    await open();
    await linked();
    const second = await context.newPage();
    await second.goto(world.url);
    await second.waitForSelector('.notice:has-text("Another phone is connected")');
    await second.waitForSelector('.pill:has-text("Live, not the phone")');
    await vi.waitFor(async () => {
      expect(await second.textContent('#now-heart .value')).toMatch(/^\d+$/);
    }, PATIENCE);
    await page.click('#seat');
    await expectText('.seat', /has left the watch/);
    await second.waitForSelector('.seat:has-text("This page is the watch’s phone;")');
    await second.waitForSelector('.pill:text-is("Live")');
  });

  it('tells that the service was killed, and goes on when it is back', async () => {
    await open();
    await linked();
    const killed = Date.now();
    await endOf(world.service, 'SIGKILL');
    await page.waitForSelector('.notice:has-text("The watch’s service is away")');
    console.log(`a killed service shows after ${Date.now() - killed} ms`);
    await world.startService();
    await linked();
    await expectText('.pill', /^Live$/);
    await expectText('#now-heart .value', /^\d+$/);
  });

  it('tells that the gateway was killed, and goes on when it is back', async () => {
    await open();
    await linked();
    const killed = Date.now();
    await endOf(world.gateway, 'SIGKILL');
    await page.waitForSelector('.notice:has-text("The gateway is away")');
    console.log(`a killed gateway shows after ${Date.now() - killed} ms`);
    await world.startGateway();
    await linked();
    await expectText('.pill', /^Live$/);
    // Another page has not the token, but the new cookie.
    const second = await context.newPage();
    await second.goto(world.url);
    await second.waitForSelector('.pill:has-text("Live, not the phone")');
  });

  it('tells of a gateway that hangs, and goes on when it does', async () => {
    await open();
    await linked();
    const stopped = Date.now();
    world.gateway?.kill('SIGSTOP');
    try {
      await page.waitForSelector('.notice:has-text("The gateway does not answer")');
      console.log(`a gateway that hangs shows after ${Date.now() - stopped} ms`);
    } finally {
      world.gateway?.kill('SIGCONT');
    }
    await expectText('.pill', /^Live$/);
    await linked();
  });

  it('tells that its token was removed while it is open', async () => {
    const lost = await world.token('to be removed');
    await fresh();
    await page.goto(`${world.url}/#token=${lost}`);
    await linked();
    const removed = Date.now();
    await world.ask('token', 'remove', 'to be removed');
    await page.waitForSelector('.notice:has-text("was removed, or its time is over")');
    console.log(`a removed token shows after ${Date.now() - removed} ms`);
    await page.waitForSelector('#token');
    expect(await page.locator('.now').count(), 'what was shown with it').toBe(0);
  });

  it('explains how to get a token without one, and takes one', async () => {
    await fresh();
    await page.goto(world.url);
    await page.waitForSelector('h2:has-text("This page needs a token")');
    expect(await textOf('pre')).toContain('parvane-gateway token add');
    await page.fill('#token', 'wrong');
    await page.click('form button');
    await page.waitForSelector('.notice:has-text("does not know this token")');
    await page.fill('#token', `${world.url}/#token=${token}`);
    await page.keyboard.press('Enter');
    await linked();
    await page.reload();
    await linked();
  });

  it.each([
    ['phone', '#panel-watch .notice', /is for a phone alone/],
    ['view', '#panel-phone .notice', /not be its phone/],
  ])('shows what a token of the scope %s lets be seen', async (scope, selector, why) => {
    const own = await world.token(`${scope} alone`, scope);
    await fresh();
    await page.goto(`${world.url}/#token=${own}`);
    await expectText('.pill', /^Live$/);
    await page.click(scope === 'phone' ? '#tab-watch' : '#tab-phone');
    await expectText(selector, why);
    await world.ask('token', 'remove', `${scope} alone`);
    await page.waitForSelector('#token');
  });

  it.each(['light', 'dark'] as const)('is for everybody, in %s', async (colorScheme) => {
    await open({ colorScheme });
    await linked();
    await expectText('#now-heart .value', /^\d+$/);
    await expectRow(['watch →', 'entry']);
    for (const view of ['phone', 'watch']) {
      await page.click(`#tab-${view}`);
      await page.waitForSelector(`#panel-${view}:not([hidden])`);
      await expectNoFault(`${view}’s view`);
      await page.screenshot({ path: `${SEEN}/${view}-${colorScheme}.png`, fullPage: true });
    }
    await context.clearCookies();
    await page.goto(world.url);
    await page.reload();
    await page.waitForSelector('#token');
    await expectNoFault('the page without a token');
    await page.screenshot({ path: `${SEEN}/token-${colorScheme}.png` });
  });

  async function expectNoFault(what: string): Promise<void> {
    await page.evaluate(AXE);
    const found = await page.evaluate(async () => {
      const { axe } = window as unknown as { axe: typeof import('axe-core') };
      const { violations } = await axe.run(document);
      return violations
        .filter(({ impact }) => impact === 'serious' || impact === 'critical')
        .map(({ id, nodes }) => `${id}: ${nodes.map(({ html }) => html).join(' ')}`);
    });
    expect(found, what).toEqual([]);
  }

  it('fits a telephone', async () => {
    await open({ viewport: { width: 360, height: 740 } });
    await linked();
    await expectText('#now-heart .value', /^\d+$/);
    for (const view of ['phone', 'watch']) {
      await page.click(`#tab-${view}`);
      await page.waitForSelector(`#panel-${view}:not([hidden])`);
      const width = await page.evaluate(() => document.documentElement.scrollWidth);
      expect(width, `the ${view}’s view, in CSS pixels`).toBeLessThanOrEqual(360);
      await page.screenshot({ path: `${SEEN}/${view}-narrow.png`, fullPage: true });
    }
  });
});

if (MISSING.length > 0) {
  it('the console in a browser', (context) => {
    context.skip(`not there: ${MISSING.join(', ')}`);
  });
}
