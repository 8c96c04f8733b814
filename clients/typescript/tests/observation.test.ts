import { beforeEach, describe, expect, it } from 'vitest';

import { Observations, Sensor, type Observation } from '../src/index.js';

const THEN = 1773489600000;

describe('Observation', () => {
  let observations: Observations;

  beforeEach(() => {
    observations = new Observations();
  });

  function take(sensor: number, value: number, atMs = THEN): Observation {
    const reading = { kind: 'reading', command: 2, flags: 1, sensor, timeMs: 1000, value } as const;
    return observations.take(reading, atMs);
  }

  it('of a heart rate has its age and the worn state', () => {
    take(Sensor.WearState, 1);
    const heartRate = take(Sensor.HeartRate, 72, THEN + 1000);
    expect(heartRate.isMeasurement).toBe(true);
    expect(heartRate.ageMs(THEN + 5000)).toBe(4000);
    expect(heartRate.text(THEN + 5000)).toBe('72 bpm, 4 s ago, worn');
  });

  it('says that the watch is not worn', () => {
    take(Sensor.WearState, 0);
    const heartRate = take(Sensor.HeartRate, 0);
    expect(heartRate.isMeasurement).toBe(false);
    expect(heartRate.text(THEN)).toBe('no reading: the watch is not worn');
  });

  it('does not know a worn state that nobody told', () => {
    expect(take(Sensor.HeartRate, 72).text(THEN)).toBe('72 bpm, 0 s ago');
    expect(take(Sensor.HeartRate, 0).text(THEN)).toBe('no usable reading, 0 s ago');
  });

  it('takes the worn state to hold for a minute', () => {
    take(Sensor.WearState, 0);
    expect(take(Sensor.HeartRate, 72, THEN + 60_000).worn).toBe('no');
    expect(take(Sensor.HeartRate, 72, THEN + 61_000).worn).toBe('unknown');
  });

  it('from before a break is not taken for new', () => {
    take(Sensor.WearState, 1);
    take(Sensor.Activity, 1);
    observations.break();
    expect(observations.latest(Sensor.Activity)?.text(THEN + 90_000)).toBe(
      'walking, 1 min ago, worn, before the link was lost',
    );
    expect(take(Sensor.HeartRate, 72).text(THEN)).toBe('72 bpm, 0 s ago');
    expect(observations.latest(Sensor.HeartRate)?.isUnbroken).toBe(true);
  });

  it.each([
    [Sensor.WearState, 1, 2 * 3600, 'worn, 2 h ago'],
    [Sensor.WearState, 0, 50 * 3600, 'not worn, 2 d ago'],
    [Sensor.Pedometer, 35, 0, 'total on the wire 35, 0 s ago'],
    [Sensor.Activity, 7, 0, 'unknown activity 7, 0 s ago'],
    [9, 7, 0, '7, 0 s ago'],
  ])('of sensor %i and value %d after %d s', (sensor, value, seconds, text) => {
    expect(take(sensor, value).text(THEN + 1000 * seconds)).toBe(text);
  });

  it('has no negative age when the clock went back', () => {
    expect(take(Sensor.HeartRate, 72).ageMs(THEN - 3600_000)).toBe(0);
  });

  it('is not there before the first reading', () => {
    expect(observations.latest(Sensor.HeartRate)).toBeUndefined();
  });
});
