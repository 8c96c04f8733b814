import { describe, expect, it } from 'vitest';

import { TimeWindow } from '../../src/plot/time-window.js';
import { ItemReadings } from '../../src/store/item-readings.js';
import { thin } from '../../src/store/thin.js';

describe('readings of an item', () => {
  it('are columns of one length', () => {
    const readings = new ItemReadings(10);
    readings.add(1, { a: 1 });
    readings.add(2, { b: 2 });
    readings.add(1.5, { a: 3, b: 4 }); // a clock that was set back
    expect([...readings.times]).toEqual([1, 2, 2]);
    expect([...(readings.column('a') ?? [])]).toEqual([1, NaN, 3]);
    expect([...(readings.column('b') ?? [])]).toEqual([NaN, 2, 4]);
    expect(readings.column('c')).toBeUndefined();
  });

  it('are the latest, however many have come', () => {
    const readings = new ItemReadings(100);
    for (let count = 0; count < 1234; count += 1) {
      readings.add(count, { a: 10 * count });
    }
    expect(readings.length).toBe(100);
    expect([readings.times[0], readings.times[99]]).toEqual([1134, 1233]);
    expect(readings.column('a')?.[0]).toBe(11340);
    expect(readings.indexOf(1150)).toBe(16);
    expect(readings.indexOf(1150.5)).toBe(17);
    expect([readings.indexOf(0), readings.indexOf(9999)]).toEqual([0, 100]);
  });
});

describe('thinning', () => {
  const count = 36_000;
  const times = Float64Array.from({ length: count }, (_, index) => index / 10);
  const values = times.map((time) => Math.sin(time));

  it('keeps what is few as it is, with gaps', () => {
    const gap = Float64Array.of(1, NaN, 3);
    expect(thin(times, [gap], 0, 3, 100)).toEqual({
      times: [0, 0.1, 0.2],
      columns: [[1, null, 3]],
    });
  });

  it('leaves no more than can be seen, and no peak out', () => {
    const spiky = values.slice();
    spiky[12_345] = 99;
    const { times: kept, columns } = thin(times, [spiky], 0, count, 400);
    expect(kept.length).toBeLessThanOrEqual(4 * 401);
    expect(columns[0]).toHaveLength(kept.length);
    expect(Math.max(...(columns[0]?.map(Number) ?? []))).toBe(99);
    expect(kept.every((time, index) => index === 0 || time >= (kept[index - 1] ?? 0))).toBe(true);
    expect([kept[0], kept.at(-1)]).toEqual([0, (count - 1) / 10]);
  });
});

describe('the stretch of time', () => {
  const make = () => new TimeWindow(() => 1000, 60);

  it('is live, stands still when it is moved back, and is live again at now', () => {
    const window = make();
    expect([window.from, window.to, window.isLive]).toEqual([940, 1000, true]);
    window.pan(-30);
    expect([window.from, window.to, window.isLive]).toEqual([910, 970, false]);
    window.pan(29);
    expect(window.isLive).toBe(false);
    window.pan(2);
    expect([window.from, window.to, window.isLive]).toEqual([940, 1000, true]);
  });

  it('is zoomed around a point, from seconds to an hour', () => {
    const window = make();
    window.pan(-100); // 840 to 900
    window.zoom(0.5, 840);
    expect([window.from, window.to]).toEqual([840, 870]);
    window.zoom(1e-9, 850);
    expect(window.to - window.from).toBeCloseTo(2);
    window.goLive();
    window.zoom(1e9);
    expect([window.from, window.isLive]).toEqual([-2600, true]);
    window.reset();
    expect(window.from).toBe(940);
  });
});
