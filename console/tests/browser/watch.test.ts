// The watch's view, each of its buttons, against the real gateway and the real service.
import { readFileSync } from 'node:fs';

import { describe, expect, it, vi } from 'vitest';

import { LONG, visitorOf, type Visitor } from './visitor.js';
import { MISSING, PATIENCE, recordedRun, skippedWithout, World } from './world.js';

interface Status {
  readonly link: { readonly state: string };
  readonly items: readonly {
    readonly item: string;
    readonly kept_by: readonly { readonly pid: number }[];
    readonly last_reading: { readonly values: Readonly<Record<string, number>> } | null;
  }[];
  readonly power_locks: readonly { readonly state: number }[];
  readonly preferences: Readonly<Record<string, unknown>>;
  readonly replay: {
    readonly files: readonly string[];
    readonly length_ms: number;
    readonly position_ms: number;
    readonly speed: number;
    readonly paused: boolean;
  };
}

/** What the service itself says. */
async function statusOf(world: World): Promise<Status> {
  return JSON.parse(await world.control('status', '--json')) as Status;
}

/** Waits until the service says so. */
function expectStatus(visitor: Visitor, what: string, is: (status: Status) => boolean) {
  return vi.waitFor(async () => {
    const status = await statusOf(visitor.world);
    expect(is(status), `${what}: ${JSON.stringify(status)}`).toBe(true);
  }, PATIENCE);
}

function valueOf({ items }: Status, name: string): number | undefined {
  const all = items.map(({ last_reading: reading }) => reading?.values[name]);
  return all.find((value) => value !== undefined);
}

async function openView(visitor: Visitor): Promise<void> {
  await visitor.open();
  await visitor.linked();
  await visitor.show('watch');
  await visitor.expectText('#item-heart_rate', /process \d+, which records/);
}

const MANUAL = '[sensors]\nheart_rate=manual\npedometer=manual\nactivity=manual\ngesture=manual\n';

describe.skipIf(MISSING.length > 0)('hands', () => {
  const visitor = visitorOf(() => new World({}, MANUAL));

  it('set a heart rate, and take the watch off and on', async () => {
    await openView(visitor);
    const { page } = visitor;
    await page.fill('#hand-heart', '151');
    await visitor.expectText('#now-heart .value', /^151$/);
    await expectStatus(visitor, '151 bpm', (told) => valueOf(told, 'hrm/heart_rate') === 151);
    await visitor.expectText('#panel-watch .plot-legend', /latest.*151 bpm/);
    await page.click('#hand-wrist');
    await page.waitForSelector('#hand-wrist[aria-pressed=true]');
    await expectStatus(visitor, 'off the wrist', (told) => valueOf(told, 'hrm/heart_rate') === -3);
    await visitor.expectText('#item-heart_rate', /not worn/);
    await page.click('#hand-wrist');
    await page.waitForSelector('#hand-wrist[aria-pressed=false]');
    await expectStatus(visitor, '151 bpm', (told) => valueOf(told, 'hrm/heart_rate') === 151);
  });

  it('walk', async () => {
    await openView(visitor);
    const { page } = visitor;
    const steps = async () => valueOf(await statusOf(visitor.world), 'pedometer/total_steps') ?? 0;
    const first = await steps();
    await page.click('#hand-steps');
    await expectStatus(
      visitor,
      '10 steps more',
      (told) => valueOf(told, 'pedometer/total_steps') === first + 10,
    );
    await page.fill('#hand-cadence', '220');
    await page.click('#hand-walk');
    await page.waitForSelector('#hand-walk[aria-pressed=true]:text-is("Stand still")');
    await vi.waitFor(async () => {
      expect(await steps(), 'steps of a walk').toBeGreaterThan(first + 15);
    }, PATIENCE);
    await page.click('#hand-walk');
    await page.waitForSelector('#hand-walk[aria-pressed=false]:text-is("Walk")');
    await visitor.expectText('#item-pedometer', /[\d,]+ steps/);
  });

  it('set the activity, and make a gesture', async () => {
    await openView(visitor);
    const { page } = visitor;
    for (const [number, name] of [
      [2, 'walking'],
      [3, 'running'],
      [0, 'other'],
      [1, 'still'],
    ] as const) {
      const button = `#hands button:text-is("${name}")`;
      await page.click(button);
      await page.waitForSelector(`${button}[aria-pressed=true]`);
      expect(await page.locator('#hands [aria-pressed=true]').count()).toBe(1);
      await expectStatus(visitor, name, (told) => valueOf(told, 'activity/status') === number);
    }
    await page.fill('#hand-gesture', '3');
    await page.click('#hands button:text-is("Make it")');
    await visitor.expectText('.toast', /^Gesture 3 is made\.$/);
    await visitor.expectText('#item-gesture', /gesture 3/);
    await expectStatus(visitor, 'gesture 3', (told) => valueOf(told, 'motion/action') === 3);
  });

  it('take the link down and bring it up', async () => {
    await openView(visitor);
    const { page } = visitor;
    await page.click('#hand-link:text-is("Take the link down")');
    await page.waitForSelector('#hand-link:text-is("Bring the link up")');
    await expectStatus(visitor, 'down', ({ link }) => link.state === 'down');
    await visitor.expectText('#link', /State\s*down, by process \d+/);
    await page.click('#hand-link');
    await page.waitForSelector('#hand-link:text-is("Take the link down")');
    await expectStatus(visitor, 'up', ({ link }) => link.state === 'up');
    await visitor.linked();
  });

  it.each(['memory', 'battery'])(
    'end the service when its %s is low, if asked to',
    async (what) => {
      await openView(visitor);
      const { page, world } = visitor;
      let question = '';
      page.once('dialog', (dialog) => {
        question = dialog.message();
        void dialog.dismiss();
      });
      await page.click(`#hand-${what}`);
      expect(question).toBe(`The service ends when the ${what} is low. Go on?`);
      await statusOf(visitor.world); // it has not ended
      page.once('dialog', (dialog) => void dialog.accept());
      await page.click(`#hand-${what}`);
      await page.waitForSelector('.notice:has-text("The watch’s service is away")');
      await vi.waitFor(() => {
        expect(world.service?.exitCode, 'of the service').not.toBeNull();
      }, PATIENCE);
      await world.startService();
      await visitor.linked();
    },
  );

  it('are shown who keeps what on, the locks, and what is stored', async () => {
    await openView(visitor);
    const { page } = visitor;
    await vi.waitFor(async () => {
      await page.$eval('#measure-heart', (button) => {
        (button as HTMLElement).click(); // in the view that is not seen; nothing, while it measures
      });
      const keepers = /request \d+ since .*; process \d+, which records/;
      expect(await visitor.textOf('#item-heart_rate')).toMatch(keepers);
      expect(await visitor.textOf('#locks')).toMatch(/State \d.*ends in \d+ s/);
      expect((await statusOf(visitor.world)).power_locks.length, 'locks').toBeGreaterThan(0);
    }, LONG);
    await visitor.expectText('#link', /Phone\s*process \d+ of user \d+, since/);
    await visitor.expectText('#link', /Queue was full\s*\d+ times\s*Phones refused\s*\d/);
    await vi.waitFor(async () => {
      const shown = await visitor.textOf('#preferences');
      const { preferences } = await statusOf(visitor.world);
      expect(Object.keys(preferences).filter((key) => !shown.includes(key))).toEqual([]);
      expect(Object.keys(preferences).length).toBeGreaterThan(0);
    }, PATIENCE);
  });
});

describe.skipIf(MISSING.length > 0)('the recording as a time line', () => {
  const visitor = visitorOf(recordedRun);

  it('pauses, goes on, jumps, and plays faster', async () => {
    await openView(visitor);
    const { page } = visitor;
    await page.click('#replay-pause:text-is("Pause")');
    await page.waitForSelector('#replay-pause:text-is("Go on")');
    await expectStatus(visitor, 'paused', ({ replay }) => replay.paused);
    await page.fill('#replay-line', '20000');
    await expectStatus(visitor, 'at 20 s', ({ replay }) => replay.position_ms === 20_000);
    await visitor.expectText('#replay-position', /^20 s of \d+ s$/);
    await page.click('#replay-pause');
    await expectStatus(visitor, 'going on', ({ replay }) => !replay.paused);
    await page.fill('#replay-speed', '2.5');
    await page.press('#replay-speed', 'Enter');
    await expectStatus(visitor, '2.5 times as fast', ({ replay }) => replay.speed === 2.5);
    await page.fill('#replay-speed', '1001');
    await page.press('#replay-speed', 'Enter');
    await visitor.expectText('.toast', /^Not done: /);
    expect((await statusOf(visitor.world)).replay.speed).toBe(2.5);
    await page.fill('#replay-speed', '1');
    await page.press('#replay-speed', 'Enter');
    await expectStatus(visitor, 'as recorded', ({ replay }) => replay.speed === 1);
  });

  it('plays another recording of those that the service knows', async () => {
    await openView(visitor);
    const known = JSON.parse(await visitor.world.control('replay', 'list', '--json')) as {
      recordings: string[];
    };
    const paths = () =>
      visitor.page.$$eval('#replay-recording option', (all) =>
        all.map((option) => (option as HTMLOptionElement).value),
      );
    await vi.waitFor(async () => {
      expect(await paths()).toEqual(known.recordings);
    }, PATIENCE);
    const first = await visitor.page.inputValue('#replay-recording');
    const other = known.recordings.find((path) => path !== first) ?? '';
    for (const path of [other, first]) {
      await visitor.page.selectOption('#replay-recording', path);
      await expectStatus(visitor, path, ({ replay }) => replay.files.join() === path);
    }
  });

  it('is looked at by the plots: stretches, keys, cursor, and what is saved of them', async () => {
    await openView(visitor);
    await visitor.world.control('replay', 'resume'); // whatever the test before has left
    const { page } = visitor;
    for (const seconds of [10, 600, 3600, 60]) {
      await page.click(`#stretch-${seconds}`);
      await page.waitForSelector(`#stretch-${seconds}[aria-pressed=true]`);
    }
    expect(await page.isDisabled('#live'), 'while it is live').toBe(true);
    await visitor.expectText('.plots .plot-legend', /latest.*\d+ bpm/);
    await page.hover('.plots .u-over');
    await visitor.expectText('.plots .plot-legend', /^\d\d?:\d\d:\d\d\.\d/); // of the reading at the cursor
    await page.focus('.plots .plot');
    await page.keyboard.press('ArrowLeft');
    await page.waitForSelector('#live:enabled');
    await page.keyboard.press('Home');
    await page.waitForSelector('#live:disabled');
    await page.keyboard.press('ArrowLeft');
    await page.click('#live');
    await page.waitForSelector('#live:disabled');
    const picture = readFileSync(await visitor.saved('#save-picture'));
    expect(picture.subarray(1, 4).toString()).toBe('PNG');
    await visitor.expectText('.plots .plot-legend', /latest.*\d+ bpm/);
    const recording = await visitor.saved('#save-recording');
    await visitor.expectText('.toast', /^\d+ readings are saved as recording\.csv/);
    const replaying = new World({ PARVANE_TRACE: recording });
    await replaying.startService();
    const { replay } = await statusOf(replaying);
    await replaying.end();
    expect(replay.files).toEqual([recording]);
    expect(replay.length_ms).toBeGreaterThan(0);
  });
});

skippedWithout('the watch’s view');
