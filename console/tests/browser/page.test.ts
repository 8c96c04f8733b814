// The page around the views, against the real gateway and the real service on the recorded run.
import { readFileSync } from 'node:fs';
import { createRequire } from 'node:module';

import { describe, expect, it, vi } from 'vitest';

import { LONG, visitorOf } from './visitor.js';
import { MISSING, PATIENCE, recordedRun, SEEN, skippedWithout } from './world.js';

const AXE = readFileSync(createRequire(import.meta.url).resolve('axe-core/axe.min.js'), 'utf8');
const ONE_DIGIT = { minimumFractionDigits: 1, maximumFractionDigits: 1 };

describe.skipIf(MISSING.length > 0)('the page', () => {
  const visitor = visitorOf(recordedRun);

  it('opens with the token, which leaves the address, and shows a beating heart', async () => {
    await visitor.open();
    expect(new URL(visitor.page.url()).hash).toBe('');
    await visitor.page.waitForSelector('#now-heart canvas');
    await visitor.expectText('#now-heart .value', /^\d+$/);
    const seen = await visitor.page.evaluate(() => Math.round(performance.now()));
    const paint = await vi.waitFor(async () => {
      const at = await visitor.page.evaluate(
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
    await visitor.expectText('.pill', /^Live$/);
  });

  it('is small, and is stored for good but for its first page', async () => {
    await visitor.fresh();
    const sizes = new Map<string, number>();
    const waiting: Promise<void>[] = [];
    visitor.page.on('response', (response) => {
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
    await visitor.page.goto(visitor.world.url);
    await visitor.page.waitForSelector('#token');
    await visitor.page.waitForLoadState('networkidle');
    await Promise.all(waiting);
    const all = [...sizes.values()].reduce((sum, size) => sum + size, 0);
    const script = [...sizes].find(([path]) => path.endsWith('.js'))?.[1] ?? 0;
    console.log(`the page has ${all} bytes compressed, ${script} of them script`);
    expect(script).toBeGreaterThan(10_000);
    expect(all).toBeLessThan(150_000);
    const first = await fetch(visitor.world.url);
    const again = await fetch(visitor.world.url, {
      headers: { 'If-None-Match': first.headers.get('etag') ?? '' },
    });
    expect(again.status, 'what has not changed').toBe(304);
    expect(await first.text(), 'the page without compression').toContain(
      '<title>Parvane console</title>',
    );
  });

  it('shows the values that an observer without a page is told', async () => {
    await visitor.open();
    await visitor.linked();
    await visitor.page.click('#seat'); // the sensors are on without a phone, too
    await visitor.expectText('.seat', /has left the watch/);
    await visitor.world.control('replay', 'seek', '25'); // the runner has rested, and runs on
    let speed = '';
    let heartRates = 0;
    const socket = visitor.world.observe(visitor.token, ({ event, item, values }) => {
      if (event === 'reading' && item === 'pedometer') {
        const told = (values as Record<string, number>)['pedometer/speed'] ?? NaN;
        speed = told.toLocaleString('en', ONE_DIGIT); // as the page writes it; toFixed() has 1.1 for 1.15
      }
      heartRates += event === 'reading' && item === 'heart_rate' ? 1 : 0;
    });
    const equal = new Set<string>();
    await vi.waitFor(async () => {
      const [before, shown, after] = [speed, await visitor.textOf('#now-speed .value'), speed];
      expect(shown, `the speed, which an observer was told as ${before}`).toBe(before);
      equal.add(after === before ? shown : '');
      equal.delete('');
      expect([...equal].length, 'different speeds, which both were told').toBeGreaterThan(3);
      expect(heartRates, 'readings of a sensor that no phone has on').toBeGreaterThan(3);
    }, LONG);
    socket.close();
  });

  it('has its views in tabs, which keys move between', async () => {
    await visitor.open();
    await visitor.page.focus('#tab-phone');
    await visitor.page.keyboard.press('ArrowRight');
    expect(new URL(visitor.page.url()).hash).toBe('#watch');
    expect(await visitor.page.getAttribute('#tab-watch', 'aria-selected')).toBe('true');
    await visitor.page.waitForSelector('#panel-watch canvas');
    await visitor.page.keyboard.press('ArrowRight');
    expect(await visitor.page.isVisible('#panel-phone')).toBe(true);
    await visitor.page.goto(`${visitor.world.url}/#watch`);
    await visitor.page.waitForSelector('#panel-watch canvas');
  });

  it('tells that its token was removed while it is open', async () => {
    const lost = await visitor.world.token('to be removed');
    await visitor.fresh();
    await visitor.page.goto(`${visitor.world.url}/#token=${lost}`);
    await visitor.linked();
    const removed = Date.now();
    await visitor.world.ask('token', 'remove', 'to be removed');
    await visitor.page.waitForSelector('.notice:has-text("was removed, or its time is over")');
    console.log(`a removed token shows after ${Date.now() - removed} ms`);
    await visitor.page.waitForSelector('#token');
    expect(await visitor.page.locator('.now').count(), 'what was shown with it').toBe(0);
  });

  it('explains how to get a token without one, and takes one', async () => {
    await visitor.fresh();
    await visitor.page.goto(visitor.world.url);
    await visitor.page.waitForSelector('h2:has-text("This page needs a token")');
    expect(await visitor.textOf('pre')).toContain('parvane-gateway token add');
    await visitor.page.fill('#token', 'wrong');
    await visitor.page.click('form button');
    await visitor.page.waitForSelector('.notice:has-text("does not know this token")');
    await visitor.page.fill('#token', `${visitor.world.url}/#token=${visitor.token}`);
    await visitor.page.keyboard.press('Enter');
    await visitor.linked();
    await visitor.page.reload();
    await visitor.linked();
  });

  it.each([
    ['phone', '#panel-watch .notice', /is for a phone alone/],
    ['view', '#panel-phone .notice', /not be its phone/],
  ])('shows what a token of the scope %s lets be seen', async (scope, selector, why) => {
    const own = await visitor.world.token(`${scope} alone`, scope);
    await visitor.fresh();
    await visitor.page.goto(`${visitor.world.url}/#token=${own}`);
    await visitor.expectText('.pill', /^Live$/);
    await visitor.page.click(scope === 'phone' ? '#tab-watch' : '#tab-phone');
    await visitor.expectText(selector, why);
    await visitor.world.ask('token', 'remove', `${scope} alone`);
    await visitor.page.waitForSelector('#token');
  });

  it.each(['light', 'dark'] as const)('is for everybody, in %s', async (colorScheme) => {
    await visitor.open({ colorScheme });
    await visitor.linked();
    await visitor.expectText('#now-heart .value', /^\d+$/);
    await visitor.expectRow(['watch →', 'entry']);
    for (const view of ['phone', 'watch']) {
      await visitor.page.click(`#tab-${view}`);
      await visitor.page.waitForSelector(`#panel-${view}:not([hidden])`);
      await expectNoFault(`${view}’s view`);
      await visitor.page.screenshot({ path: `${SEEN}/${view}-${colorScheme}.png`, fullPage: true });
    }
    await visitor.context.clearCookies();
    await visitor.page.goto(visitor.world.url);
    await visitor.page.reload();
    await visitor.page.waitForSelector('#token');
    await expectNoFault('the page without a token');
    await visitor.page.screenshot({ path: `${SEEN}/token-${colorScheme}.png` });
  });

  async function expectNoFault(what: string): Promise<void> {
    await visitor.page.evaluate(AXE);
    const found = await visitor.page.evaluate(async () => {
      const { axe } = window as unknown as { axe: typeof import('axe-core') };
      const { violations } = await axe.run(document);
      return violations
        .filter(({ impact }) => impact === 'serious' || impact === 'critical')
        .map(({ id, nodes }) => `${id}: ${nodes.map(({ html }) => html).join(' ')}`);
    });
    expect(found, what).toEqual([]);
  }

  it('fits a telephone', async () => {
    await visitor.open({ viewport: { width: 360, height: 740 } });
    await visitor.linked();
    await visitor.expectText('#now-heart .value', /^\d+$/);
    for (const view of ['phone', 'watch']) {
      await visitor.page.click(`#tab-${view}`);
      await visitor.page.waitForSelector(`#panel-${view}:not([hidden])`);
      const width = await visitor.page.evaluate(() => document.documentElement.scrollWidth);
      expect(width, `the ${view}’s view, in CSS pixels`).toBeLessThanOrEqual(360);
      await visitor.page.screenshot({ path: `${SEEN}/${view}-narrow.png`, fullPage: true });
    }
  });
});

skippedWithout('the page');
