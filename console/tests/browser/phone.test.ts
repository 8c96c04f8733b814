// The phone's view, against the real gateway and the real service on the recorded run.
import { readFileSync } from 'node:fs';

import { describe, expect, it, vi } from 'vitest';

import { LONG, visitorOf } from './visitor.js';
import { MISSING, PATIENCE, recordedRun, skippedWithout } from './world.js';

describe.skipIf(MISSING.length > 0)('the phone’s view', () => {
  const visitor = visitorOf(recordedRun);

  it('measures a heart rate for 15 s, with a ring', async () => {
    await visitor.open();
    await visitor.linked();
    await visitor.page.click('#measure-heart');
    await visitor.expectText('#heart .ring-number', /^\d+ s$/);
    const offset = () =>
      visitor.page.$eval('.ring-on', (ring) =>
        Number.parseFloat(getComputedStyle(ring).strokeDashoffset),
      );
    const before = await offset();
    await vi.waitFor(async () => {
      expect(await offset(), 'the ring fills').toBeLessThan(before);
    }, PATIENCE);
    expect(await visitor.page.isDisabled('#measure-heart')).toBe(true);
    await visitor.expectText('#heart .result', /^\d+ bpm, (just now|\d+ s ago), worn$/);
    const row = await visitor.expectRow(['reading', 'hr,', 'measured']);
    expect(row, 'the time of the answer').toMatch(/[1-9]\d\.\d\d s$/);
    const value = /([\d.]+) bpm/.exec(row)?.[1];
    expect(await visitor.textOf('#heart .ring-number')).toBe(value);
  });

  it('lists the sensors, and has a button for each request', async () => {
    await visitor.open();
    await visitor.expectText('#sensors h2', /AA:BB:CC:DD:EE:0F/);
    await visitor.expectText('#sensors tbody', /Heart rate.*bpm.*Worn state.*Activity.*Steps/s);
    await visitor.page.click('#list');
    await visitor.expectText('.toast', /has told its sensors/);
    for (const [sensor, name] of [
      [1, 'activity'],
      [2, 'steps'],
      [4, 'wear'],
    ] as const) {
      // What the page itself is measuring just then is not asked for again.
      await vi.waitFor(async () => {
        await visitor.page.click('#packet-clear');
        await visitor.page.click(`#measure-${sensor}`);
        await visitor.page.waitForSelector(`#measure-${sensor}:text-is("Measure")`);
        await visitor.expectRow(['phone →', 'measure', name], { timeout: 3000 });
      }, LONG);
      await visitor.expectRow(['watch →', 'reading', name]);
    }
    await visitor.page.click('#follow-1');
    await visitor.expectRow(['phone →', 'stop', 'activity']);
    const stopped = await visitor.expectRow(['watch →', 'stop-ack', 'activity']);
    expect(stopped, 'the time of the answer').toMatch(/\d ms$/);
    await visitor.expectText('#follow-1', /^Follow$/);
    await visitor.page.click('#packet-clear');
    await visitor.page.click('#follow-1');
    await visitor.expectRow(['phone →', 'start', 'activity']);
    await visitor.expectText('#follow-1', /^Stop$/);
    await visitor.expectText('#activity .result', /(still or other|running), since/);
    expect(await visitor.page.getAttribute('.band', 'aria-label')).toMatch(/from \d/);
  });

  it('tells the steps really walked beside the number on the wire', async () => {
    await visitor.open();
    await visitor.linked();
    await visitor.page.click('#measure-2');
    await visitor.expectText('#wire-steps', /^[\d,]+$/);
    await visitor.expectText('#true-steps', /^[\d,]+$/);
    const wire = (await visitor.textOf('#wire-steps')).replaceAll(',', '');
    await visitor.expectRow(['watch →', `steps, total ${wire},`]);
    await visitor.page.click('#steps summary');
    expect(await visitor.page.isVisible('#steps details p')).toBe(true);
  });

  it('sends bytes as they are, and explains what is wrong with packets', async () => {
    await visitor.open();
    await visitor.linked();
    const send = async (bytes: string) => {
      await visitor.page.fill('#raw', bytes);
      await visitor.page.click('#raw-send');
    };
    await send('0f 00 00 01');
    await visitor.expectRow(['phone →', 'dropped', 'there is no command 15']);
    await send('34 00 00 01');
    await visitor.expectRow(['watch →', 'stop-ack', 'flags 3']);
    await send('1');
    await visitor.expectText('#packets [role=alert]', /half a byte/);
    await visitor.page.selectOption('#raw-sample', '01 00 00 00');
    expect(await visitor.page.inputValue('#raw')).toBe('01 00 00 00');
  });

  it('filters, pauses, copies, saves and clears packets', async () => {
    await visitor.open({ permissions: ['clipboard-read', 'clipboard-write'] });
    await visitor.linked();
    await visitor.expectRow(['watch →', 'entry']);
    await visitor.page.fill('#packet-filter', 'list-header');
    await vi.waitFor(async () => {
      const rows = await visitor.page.locator('.packets tbody tr').allTextContents();
      expect(rows.length).toBeGreaterThan(0);
      expect(rows.filter((row) => !row.includes('list-header'))).toEqual([]);
    }, PATIENCE);
    await visitor.page.click('#packet-copy');
    await visitor.expectText('.toast', /packets? copied/);
    expect(await visitor.page.evaluate(() => navigator.clipboard.readText())).toMatch(
      /\t<\t.*list-header/,
    );
    await visitor.page.fill('#packet-filter', '');
    await visitor.page.click('#packet-pause');
    const count = await visitor.textOf('#packets [role=status]');
    expect(count).toMatch(/paused/);
    await visitor.page.click('#list');
    await visitor.expectText('.toast', /has told its sensors/);
    expect(await visitor.textOf('#packets [role=status]'), 'while it is paused').toBe(count);
    await visitor.page.click('#packet-pause');
    await vi.waitFor(async () => {
      expect(await visitor.textOf('#packets [role=status]')).not.toBe(count);
    }, PATIENCE);
    expect(readFileSync(await visitor.saved('#packet-pcapng')).readUInt32LE(0)).toBe(0x0a0d0d0a);
    const packets = JSON.parse(readFileSync(await visitor.saved('#packet-json'), 'utf8')) as {
      from: string;
    }[];
    expect(new Set(packets.map(({ from }) => from))).toEqual(new Set(['phone', 'watch']));
    await vi.waitFor(async () => {
      await visitor.page.click('#packet-clear');
      expect(await visitor.textOf('#packets [role=status]')).toMatch(/^\d of \d packets/); // some have come since
    }, PATIENCE);
  });
});

skippedWithout('the phone’s view');
