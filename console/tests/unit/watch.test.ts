// What the watch's view computes: recordings, cadence, the moment that plays, and steps at a cadence.
import { describe, expect, it } from 'vitest';

import type { ItemName, Replay } from '../../src/control/messages.js';
import { ItemReadings } from '../../src/store/item-readings.js';
import { cadenceAt } from '../../src/watch/cadence.js';
import { lengthText } from '../../src/watch/lengths.js';
import { toRecording } from '../../src/watch/recording.js';
import { positionAfter } from '../../src/watch/replay-card.js';
import { Walk } from '../../src/watch/walk.js';

const START = 1_769_862_896;
const NAMES =
  't_ms,heart_rate,total_steps,walk_steps,run_steps,distance_m,calories_kcal,speed,activity,gesture,' +
  'peak_to_peak,spo2,activity_accuracy,restart';

function store(): (item: ItemName) => ItemReadings {
  const items = new Map<ItemName, ItemReadings>();
  return (item) => {
    const found = items.get(item) ?? new ItemReadings(100);
    items.set(item, found);
    return found;
  };
}

function rowsOf(text: string): string[] {
  const lines = text.trimEnd().split('\n');
  expect(lines.slice(0, 4)).toEqual([
    '# recording: what a browser was told of a running service',
    `# start_epoch_s: ${START}`,
    '# tz: +00:00 (start_epoch_s is UTC)',
    NAMES,
  ]);
  return lines.slice(4);
}

describe('a recording of what is shown', () => {
  it('has the readings of the stretch in the order of time, and of the sensors at one instant', () => {
    const of = store();
    of('activity').add(START + 0.5, { 'activity/status': 2, 'activity/accuracy': 1 });
    of('heart_rate').add(START - 1, { 'hrm/heart_rate': 60 });
    of('heart_rate').add(START + 0.21, { 'hrm/heart_rate': 72, 'hrm/peak_to_peak': 833 });
    of('heart_rate').add(START + 0.5, { 'hrm/heart_rate': -3 });
    of('heart_rate').add(START + 9, { 'hrm/heart_rate': 90 });
    of('gesture').add(START + 0.5, { 'motion/action': 3 });
    of('pedometer').add(START + 0.5, {
      'pedometer/total_steps': 1500,
      'pedometer/distance': 1101.25,
      'pedometer/speed': 1e-7,
    });
    const { text, rows, leftOut } = toRecording(of, START, START + 9);
    expect(rowsOf(text)).toEqual([
      '0,72,,,,,,,,,833,,,',
      '290,-3,,,,,,,,,,,,',
      '290,,1500,,,1101.25,,0.0000001,,,,,,',
      '290,,,,,,,,2,,,,1,',
      '290,,,,,,,,,3,,,,',
    ]);
    expect([rows, leftOut]).toEqual([5, 0]);
  });

  it('says where the pedometer begins anew, and where it no longer tells a value', () => {
    const of = store();
    const steps = [
      { 'pedometer/total_steps': 10, 'pedometer/walk_steps': 4 },
      { 'pedometer/total_steps': 12 },
      { 'pedometer/total_steps': 3 },
      { 'pedometer/total_steps': 4 },
    ];
    steps.forEach((values, at) => {
      of('pedometer').add(START + at, values);
    });
    const { text } = toRecording(of, START, START + 9);
    expect(rowsOf(text).map((row) => row.split(',').at(-1))).toEqual(['', '2', '1', '']);
  });

  it('leaves out what it cannot hold, and counts it', () => {
    const of = store();
    of('pedometer').add(START, { 'pedometer/total_steps': 1 });
    of('pedometer').add(START + 1, { 'pedometer/total_steps': 1.5 });
    of('pedometer').add(START + 2, { 'pedometer/distance': -1 });
    const { rows, leftOut } = toRecording(of, START, START + 9);
    expect([rows, leftOut]).toEqual([1, 2]);
    expect(toRecording(store(), START, START + 9).rows).toBe(0);
  });
});

describe('the cadence', () => {
  const at = (times: number[], steps: number[]) =>
    times.map((_, index) => cadenceAt(Float64Array.from(times), Float64Array.from(steps), index));

  it('is what the counter has gained in ten seconds', () => {
    const times = Array.from({ length: 21 }, (_, second) => second);
    const rates = at(
      times,
      times.map((second) => 2 * Math.min(second, 10)),
    );
    expect(rates[0]).toBeNaN();
    expect(rates.slice(1, 11)).toEqual(Array.from({ length: 10 }, () => 120));
    expect(rates[15]).toBe(60);
    expect(rates[20]).toBe(0);
  });

  it('needs no reading within ten seconds, and begins anew with the counter', () => {
    expect(at([0, 60], [0, 100])).toEqual([NaN, 100]);
    expect(at([0, 1, 2, 3], [50, 52, 0, 1])).toEqual([NaN, 120, NaN, 60]);
    expect(at([0, 1], [NaN, 5])).toEqual([NaN, NaN]);
  });
});

it('the moment that plays goes on at its speed, starts over or stops, and stands while paused', () => {
  const replay: Replay = {
    files: ['/a.csv'],
    length_ms: 10_000,
    position_ms: 9000,
    speed: 2,
    paused: false,
    loop: true,
    changes: 0,
  };
  expect(positionAfter(replay, 400)).toBe(9800);
  expect(positionAfter(replay, 1000)).toBe(1000);
  expect(positionAfter({ ...replay, loop: false }, 1000)).toBe(10_000);
  expect(positionAfter({ ...replay, paused: true }, 1000)).toBe(9000);
});

it('a walk has whole steps at its cadence, and does not run to catch up', () => {
  const walk = new Walk(0);
  const steps = Array.from({ length: 120 }, (_, index) => walk.stepsUntil(500 * (index + 1), 110));
  expect(steps.reduce((sum, count) => sum + count)).toBe(110);
  expect(Math.max(...steps)).toBe(1);
  expect(walk.stepsUntil(3_600_000, 60)).toBeLessThanOrEqual(3);
});

it('lengths have units', () => {
  expect([0, 3999, 125_000, 3_780_000].map(lengthText)).toEqual([
    '0 s',
    '3 s',
    '2 min 5 s',
    '1 h 3 min',
  ]);
});
