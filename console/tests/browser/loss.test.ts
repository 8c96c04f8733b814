// What the page says when something is taken from it: the phone's place, the service, the gateway.
import { describe, expect, it, vi } from 'vitest';

import { visitorOf } from './visitor.js';
import { endOf, MISSING, PATIENCE, recordedRun, skippedWithout } from './world.js';

describe.skipIf(MISSING.length > 0)('the page that loses', () => {
  const visitor = visitorOf(recordedRun);

  it('tells a second tab why it is not the phone, and shows it the watch', async () => {
    await visitor.open();
    await visitor.linked();
    const second = await visitor.context.newPage();
    await second.goto(visitor.world.url);
    await second.waitForSelector('.notice:has-text("Another phone is connected")');
    await second.waitForSelector('.pill:has-text("Live, not the phone")');
    await vi.waitFor(async () => {
      expect(await second.textContent('#now-heart .value')).toMatch(/^\d+$/);
    }, PATIENCE);
    await visitor.page.click('#seat');
    await visitor.expectText('.seat', /has left the watch/);
    await second.waitForSelector('.seat:has-text("This page is the watch’s phone;")');
    await second.waitForSelector('.pill:text-is("Live")');
  });

  it('tells that the service was killed, and goes on when it is back', async () => {
    await visitor.open();
    await visitor.linked();
    const killed = Date.now();
    await endOf(visitor.world.service, 'SIGKILL');
    await visitor.page.waitForSelector('.notice:has-text("The watch’s service is away")');
    console.log(`a killed service shows after ${Date.now() - killed} ms`);
    await visitor.world.startService();
    await visitor.linked();
    await visitor.expectText('.pill', /^Live$/);
    await visitor.expectText('#now-heart .value', /^\d+$/);
  });

  it('tells that the gateway was killed, and goes on when it is back', async () => {
    await visitor.open();
    await visitor.linked();
    const killed = Date.now();
    await endOf(visitor.world.gateway, 'SIGKILL');
    await visitor.page.waitForSelector('.notice:has-text("The gateway is away")');
    console.log(`a killed gateway shows after ${Date.now() - killed} ms`);
    await visitor.world.startGateway();
    await visitor.linked();
    await visitor.expectText('.pill', /^Live$/);
    // Another page has not the token, but the new cookie.
    const second = await visitor.context.newPage();
    await second.goto(visitor.world.url);
    await second.waitForSelector('.pill:has-text("Live, not the phone")');
  });

  it('tells of a gateway that hangs, and goes on when it does', async () => {
    await visitor.open();
    await visitor.linked();
    const stopped = Date.now();
    visitor.world.gateway?.kill('SIGSTOP');
    try {
      await visitor.page.waitForSelector('.notice:has-text("The gateway does not answer")');
      console.log(`a gateway that hangs shows after ${Date.now() - stopped} ms`);
    } finally {
      visitor.world.gateway?.kill('SIGCONT');
    }
    await visitor.expectText('.pill', /^Live$/);
    await visitor.linked();
  });
});

skippedWithout('the page that loses');
