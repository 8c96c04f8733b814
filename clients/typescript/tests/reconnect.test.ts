// What becomes of a session when links come and go.
import { beforeEach, describe, expect, it } from 'vitest';

import { Sensor } from '../src/index.js';
import { listHeader, PlayedSession, reading } from './played-session.js';

const SECOND = 1000;

describe('Session whose links come and go', () => {
  let played: PlayedSession;

  beforeEach(() => {
    played = new PlayedSession({ asksWorn: false });
  });

  /** A link, and the acknowledgement of its stop, with its flags. */
  function link(flags: number): void {
    played.session.connected(played.now);
    played.hear(`${flags}4 02 00 01`);
  }

  function lose(why = 'gone'): void {
    played.session.lost(why, played.now);
  }

  it('wants a link from the beginning', () => {
    expect(played.session.wantsLink).toBe(true);
    expect(played.session.isLinked).toBe(false);
    expect(played.session.deadlineMs).toBeUndefined();
  });

  it('counts a link when its stop is acknowledged', () => {
    played.session.connected(played.now);
    expect(played.sent()).toEqual(['14 00 00 01']);
    expect(played.texts()).toEqual([]);
    played.hear('14 02 00 01');
    expect(played.texts()).toEqual(['linked']);
    expect(played.session.isLinked).toBe(true);
    expect(played.session.deadlineMs).toBeUndefined();
  });

  it('tells of loss and return once each', () => {
    link(1);
    lose();
    lose();
    lose('gone once more');
    expect(played.texts()).toEqual(['linked', 'lost: gone']);
    played.until(SECOND);
    link(2);
    played.hear('24 02 00 01');
    expect(played.texts()).toEqual(['linked']);
  });

  it('has pauses that grow until the watch is heard', () => {
    let failedAt = 0;
    for (const pause of [100, 200, 400, 800, 1600, 3200, 5000, 5000]) {
      expect(played.session.wantsLink).toBe(true);
      lose('refused');
      expect(played.texts()).toEqual([`attempt failed: refused, ${pause} ms`]);
      expect(played.session.wantsLink).toBe(false);
      failedAt += pause;
      expect(played.session.deadlineMs).toBe(failedAt);
      played.until(failedAt);
    }
    link(1);
    lose();
    expect(played.session.deadlineMs).toBe(failedAt + 100);
  });

  it('takes a link that is closed before it answers for a failed attempt', () => {
    played.session.connected(played.now);
    lose('another phone is connected');
    expect(played.texts()).toEqual(['attempt failed: another phone is connected, 100 ms']);
    played.until(100);
    played.session.connected(played.now);
    lose('another phone is connected');
    expect(played.texts()).toEqual(['attempt failed: another phone is connected, 200 ms']);
  });

  it('gives a link up on which nobody answers', () => {
    played.session.connected(played.now);
    played.until(5 * SECOND);
    expect(played.session.wantsLink).toBe(false);
    expect(played.texts()).toEqual([
      "attempt failed: no answer to the stop of 'activity' within 5 s, 100 ms",
    ]);
    played.until(5100);
    expect(played.session.wantsLink).toBe(true);
    played.sent();
    played.session.connected(played.now);
    expect(played.sent()).toEqual(['24 00 00 01']);
  });

  it('takes a stop that somebody asks for as the proof as well', () => {
    played.session.connected(played.now);
    const stop = played.session.stop(Sensor.Activity, played.now);
    expect(played.sent()).toEqual(['14 00 00 01']);
    played.until(5 * SECOND);
    expect(played.session.wantsLink).toBe(false);
    expect(played.texts()).toEqual([
      `failed activity #${stop}: no answer to the stop of 'activity' within 5 s`,
      "attempt failed: no answer to the stop of 'activity' within 5 s, 100 ms",
    ]);
  });

  it('asks again for what is followed on the next link', () => {
    for (const sensor of [1, 2, 3, 4]) {
      played.session.follow(sensor, played.now);
    }
    expect(played.sent()).toEqual([]); // there is no link yet
    link(1);
    expect(played.sent()).toEqual([
      '14 00 00 01',
      '23 00 00 01 00',
      '32 00 00 02',
      '12 00 00 03',
      '22 00 00 04',
    ]);
    lose();
    played.until(SECOND);
    link(3);
    expect(played.sent()).toEqual([
      '34 00 00 01',
      '13 00 00 01 00',
      '22 00 00 02',
      '32 00 00 03',
      '12 00 00 04',
    ]);
    expect(played.texts()).toEqual(['linked', 'lost: gone', 'linked']);
  });

  it('does not start on the next link what was stopped without one', () => {
    played.session.follow(Sensor.Activity, played.now);
    link(1);
    lose();
    played.session.stop(Sensor.Activity, played.now);
    played.sent();
    played.until(SECOND);
    link(3);
    expect(played.sent()).toEqual(['34 00 00 01']);
    expect(played.texts().at(-1)).toBe('linked');
  });

  it('ends a measurement in flight with an error that says so', () => {
    link(1);
    played.session.measure(Sensor.HeartRate, played.now);
    played.session.list(played.now);
    lose();
    expect(played.texts()).toEqual([
      'linked',
      'lost: gone',
      "failed hr #2: the link was lost before the answer to the measurement of 'hr'",
      'failed list #3: the link was lost before the answer to the sensor list',
    ]);
    played.until(SECOND);
    link(1);
    played.hear(reading(0x22, 3, 72));
    expect(played.texts()).toEqual(['linked', 'hr 72']); // it answers nothing any more
  });

  it('lets a request wait for a link', () => {
    played.session.measure(Sensor.Activity, played.now);
    lose('refused');
    played.until(SECOND);
    link(1);
    expect(played.sent()).toEqual(['14 00 00 01', '22 00 00 01']);
    played.hear(reading(0x22, 1, 2));
    expect(played.texts()).toEqual(['attempt failed: refused, 100 ms', 'linked', 'activity 2 #1']);
  });

  it('says of a request that it found no link in its time', () => {
    played.session.measure(Sensor.Activity, played.now, 2 * SECOND);
    expect(played.session.deadlineMs).toBe(2 * SECOND);
    played.until(2 * SECOND);
    expect(played.texts()).toEqual(['failed activity #1: no link to the watch within 2 s']);
  });

  it('says so of each of several requests, while it waits for the next attempt', () => {
    lose('refused');
    played.session.measure(Sensor.Activity, played.now, 50);
    played.session.measure(Sensor.Pedometer, played.now, 50);
    played.until(50);
    expect(played.texts()).toEqual([
      'attempt failed: refused, 100 ms',
      'failed activity #1: no link to the watch within 0.05 s',
      'failed steps #2: no link to the watch within 0.05 s',
    ]);
  });

  it('asks a watch that has fallen silent for its sensors, and then gives it up', () => {
    link(1);
    played.session.measure(Sensor.HeartRate, played.now);
    played.sent();
    played.until(20 * SECOND);
    expect(played.sent()).toEqual(['31 00 00 00']);
    played.until(25 * SECOND);
    expect(played.texts()).toEqual([
      'linked',
      "failed hr #2: no answer to the measurement of 'hr' within 20 s",
      'lost: no answer to the sensor list within 5 s',
    ]);
    expect(played.session.wantsLink).toBe(false);
  });

  it('leaves a sensor out that is silent on a link that is there', () => {
    link(1);
    played.session.follow(Sensor.Pedometer, played.now);
    played.until(5 * SECOND);
    expect(played.sent()).toEqual(['14 00 00 01', '22 00 00 02', '31 00 00 00']);
    played.hear(listHeader(0xb1, 0));
    played.until(3600 * SECOND);
    expect(played.texts()).toEqual([
      'linked',
      "failed steps: no answer to the measurement of 'steps' within 5 s",
    ]);
    expect(played.session.isLinked).toBe(true);
  });

  it('does not take silence amid other packets for a reason to ask', () => {
    link(1);
    played.session.measure(Sensor.HeartRate, played.now);
    played.sent();
    played.until(10 * SECOND);
    played.hear(reading(0x02, 2, 1));
    played.until(20 * SECOND);
    expect(played.sent()).toEqual([]);
  });

  it('drops packets of a link that is gone', () => {
    link(1);
    played.session.measure(Sensor.HeartRate, played.now);
    lose();
    expect(played.sent()).toEqual([]); // what was not sent yet is of no use
    played.texts();
    played.hear(reading(0x22, 3, 72), '00');
    expect(played.texts()).toEqual([]);
  });

  it('takes a new link in the place of another for a loss and a return', () => {
    link(1);
    link(2);
    expect(played.texts()).toEqual(['linked', 'lost: another link took its place', 'linked']);
  });
});
