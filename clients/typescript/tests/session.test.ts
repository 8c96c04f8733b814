import { beforeEach, describe, expect, it } from 'vitest';

import { Sensor, type NewReading, type SessionOptions } from '../src/index.js';
import { listEntry, listHeader, PlayedSession, reading, trusting } from './played-session.js';

const SECOND = 1000;
const HOUR = 3600 * SECOND;

let played: PlayedSession;

function measure(sensor: number, timeoutMs?: number): number {
  return played.session.measure(sensor, played.now, timeoutMs);
}

function follow(sensor: number, everyMs?: number): void {
  played.session.follow(sensor, played.now, everyMs);
}

function lastReading(): NewReading {
  const event = played.events().at(-1);
  if (event?.kind !== 'reading') {
    throw new Error(`no reading: ${JSON.stringify(event)}`);
  }
  return event;
}

/** Requests and their answers, on a link that is not put to the proof. */
describe('Session', () => {
  beforeEach(() => {
    played = new PlayedSession(trusting());
    played.session.connected(played.now);
    expect(played.texts()).toEqual(['linked']);
  });

  it('takes the header and as many entries as it counts for the list', () => {
    played.session.list(played.now);
    expect(played.sent()).toEqual(['11 00 00 00']);
    played.hear(listHeader(0x91, 2), listEntry(0x91, 1, 1), listEntry(0x91, 2, 2));
    const [told] = played.events();
    expect(told).toMatchObject({
      kind: 'list',
      request: 1,
      list: { header: { address: 'AA:BB:CC:DD:EE:FF' }, entries: [{ sensor: 1 }, { sensor: 2 }] },
    });
  });

  it('takes an empty list', () => {
    played.session.list(played.now);
    played.hear(listHeader(0x91, 0));
    expect(played.texts()).toEqual(['list of 0 #1']);
  });

  it('tells a push amid the list', () => {
    played.session.list(played.now);
    played.hear(listHeader(0x91, 1), reading(0x02, 2, 2), listEntry(0x91, 1, 3));
    expect(played.texts()).toEqual(['steps 2', 'list of 1 #1']);
  });

  it('ends a list whose entries are out of order', () => {
    played.session.list(played.now);
    played.hear(listHeader(0x91, 2), listEntry(0x91, 2, 2), listEntry(0x91, 2, 2));
    expect(played.texts()).toEqual(['failed list #1: sensor entry 2 where entry 1 was due']);
  });

  it('takes no entries without a header or of another list', () => {
    played.hear(listHeader(0x91, 1), listEntry(0x91, 1, 1));
    played.session.list(played.now);
    played.hear(listEntry(0x91, 1, 1), listHeader(0xa1, 1), listHeader(0x91, 1));
    played.hear(listEntry(0xa1, 1, 1), listEntry(0x91, 1, 1));
    expect(played.texts()).toEqual(['list of 1 #1']);
  });

  it('gives up a list that stops halfway', () => {
    played.session.list(played.now);
    played.hear(listHeader(0x91, 2), listEntry(0x91, 1, 1));
    played.until(5 * SECOND);
    expect(played.texts()).toEqual(['failed list #1: no answer to the sensor list within 5 s']);
  });

  it('knows the answer to a measurement by its sensor and command', () => {
    measure(Sensor.HeartRate);
    expect(played.sent()).toEqual(['12 00 00 03']);
    played.hear(reading(0x12, 2, 1), reading(0x13, 3, 2), reading(0x12, 3, 72));
    expect(played.texts()).toEqual(['steps 1', 'hr 2', 'hr 72 #1']);
  });

  it('has flags that take turns and leave out zero', () => {
    for (const first of [0x12, 0x22, 0x32, 0x12]) {
      measure(Sensor.Activity);
      played.hear(reading(first, 1, 1));
    }
    expect(played.sent()).toEqual(['12 00 00 01', '22 00 00 01', '32 00 00 01', '12 00 00 01']);
    expect(played.texts()).toEqual([1, 2, 3, 4].map((id) => `activity 1 #${id}`));
  });

  it.each([0, 4, 255, undefined])('takes first flags of %s for 1', (flags) => {
    const options = { ...trusting(), firstFlags: flags } as SessionOptions;
    played = new PlayedSession(options);
    played.session.connected(played.now);
    measure(Sensor.Activity);
    expect(played.sent()).toEqual(['12 00 00 01']);
  });

  it('asks many questions at a time', () => {
    for (const sensor of [1, 2, 3, 4]) {
      measure(sensor);
    }
    played.session.list(played.now);
    expect(played.sent()).toEqual([
      '12 00 00 01',
      '22 00 00 02',
      '32 00 00 03',
      '12 00 00 04',
      '21 00 00 00',
    ]);
    played.hear(reading(0x32, 3, 72), listHeader(0xa1, 0), reading(0x12, 4, 1));
    played.hear(reading(0x22, 2, 35), reading(0x12, 1, 2));
    expect(played.texts()).toEqual([
      'hr 72 #3',
      'list of 0 #5',
      'wear 1 #4',
      'steps 35 #2',
      'activity 2 #1',
    ]);
  });

  it('does not ask twice what is being asked', () => {
    expect(measure(Sensor.HeartRate, SECOND)).toBe(1);
    played.until(500);
    expect(measure(Sensor.HeartRate, 3 * SECOND)).toBe(1);
    expect(played.sent()).toEqual(['12 00 00 03']);
    played.until(3 * SECOND);
    expect(played.texts()).toEqual([]);
    played.until(3500);
    expect(played.texts()).toEqual([
      "failed hr #1: no answer to the measurement of 'hr' within 3 s",
    ]);
  });

  it('does not take a late answer for that to the next request', () => {
    measure(Sensor.HeartRate);
    played.until(20 * SECOND);
    expect(played.texts()).toEqual([
      "failed hr #1: no answer to the measurement of 'hr' within 20 s",
    ]);
    measure(Sensor.HeartRate);
    played.hear(reading(0x12, 3, 1), reading(0x22, 3, 72));
    expect(played.texts()).toEqual(['hr 1', 'hr 72 #2']);
  });

  it('does not take steps pushed before the request arrived for its answer', () => {
    measure(Sensor.Pedometer);
    played.hear(reading(0x02, 2, 1), reading(0x12, 2, 2));
    expect(played.texts()).toEqual(['steps 1', 'steps 2 #1']);
  });

  it('gives each question up at its own time', () => {
    measure(Sensor.HeartRate, 250);
    measure(Sensor.Activity);
    expect(played.session.deadlineMs).toBe(250);
    played.until(249);
    expect(played.texts()).toEqual([]);
    played.until(250);
    expect(played.texts()).toEqual([
      "failed hr #1: no answer to the measurement of 'hr' within 0.25 s",
    ]);
    expect(played.session.deadlineMs).toBe(5 * SECOND);
    played.hear(reading(0x22, 1, 1));
    expect(played.session.deadlineMs).toBeUndefined();
  });

  it('does not put the time-out off for pushes', () => {
    measure(Sensor.HeartRate);
    for (let second = 1; second <= 20; ++second) {
      played.until(second * SECOND - 1);
      played.hear(reading(0x02, 2, 1));
    }
    played.until(20 * SECOND);
    expect(played.texts().at(-1)).toMatch(/^failed hr #1: no answer/);
  });

  it('asks for the worn state again when the watch keeps silent', () => {
    measure(Sensor.WearState);
    expect(played.sent()).toEqual(['12 00 00 04']);
    played.until(3499);
    expect(played.sent()).toEqual([]);
    played.until(3500);
    expect(played.sent()).toEqual(['12 00 00 04']);
    played.hear(reading(0x12, 4, 1));
    played.until(60 * SECOND);
    expect(played.sent()).toEqual([]);
    expect(played.texts()).toEqual(['wear 1 #1']);
  });

  it('takes the worn state with the flags of the request before', () => {
    measure(Sensor.WearState);
    played.hear(reading(0x32, 4, 1));
    expect(played.texts()).toEqual(['wear 1 #1']);
  });

  it('does not ask for the worn state again after its time', () => {
    measure(Sensor.WearState, 3500);
    played.sent();
    played.until(60 * SECOND);
    expect(played.sent()).toEqual([]);
    expect(played.texts()).toHaveLength(1);
  });

  it('does not ask for a sensor that the watch does not have', () => {
    expect(measure(9)).toBe(1);
    played.session.stop(0, played.now);
    follow(200);
    expect(played.sent()).toEqual([]);
    expect(played.texts()).toEqual([
      'failed unknown #1: the watch has no such sensor',
      'failed unknown #2: the watch has no such sensor',
      'failed unknown: the watch has no such sensor',
    ]);
    expect(played.session.follows(200)).toBe(false);
  });

  it('knows the acknowledgement of a stop by its sensor and flags', () => {
    played.session.stop(Sensor.Activity, played.now);
    expect(played.sent()).toEqual(['14 00 00 01']);
    played.hear('34 02 00 01', '14 02 00 03');
    expect(played.texts()).toEqual([]);
    played.hear('14 02 00 01', '14 02 00 01');
    expect(played.texts()).toEqual(['stopped activity #1']);
  });

  it('tells a packet that is none, which ends nothing', () => {
    measure(Sensor.Activity);
    played.hear('12 00', '15 00 02 01', reading(0x12, 1, 1));
    expect(played.texts()).toEqual([
      'nonsense: packet size (offset 2): expected 4, 13, 18 or 25 bytes, found 2 bytes',
      'activity 1 #1',
    ]);
  });

  it('says of readings when they were and what they are worth', () => {
    played = new PlayedSession(trusting(), 1000 * SECOND);
    played.session.connected(played.now);
    played.hear(reading(0x12, 4, 1), reading(0x12, 3, 0));
    const told = lastReading();
    expect(told.watchTimeMs).toBe(1000 * SECOND);
    expect(told.observation.isMeasurement).toBe(false);
    expect(told.observation.worn).toBe('yes');
    expect(told.observation.isUnbroken).toBe(true);
    played.session.lost('gone', played.now);
    expect(played.session.latest(Sensor.HeartRate)?.isUnbroken).toBe(false);
  });

  it('asks for the worn state with a heart rate, unless it was just told', () => {
    played = new PlayedSession({ ...trusting(), asksWorn: true });
    played.session.connected(played.now);
    follow(Sensor.HeartRate);
    expect(played.sent()).toEqual(['12 00 00 03', '22 00 00 04']);
    played.hear(reading(0x22, 4, 1));
    played.until(15 * SECOND);
    played.hear(reading(0x12, 3, 72));
    expect(lastReading().observation.worn).toBe('yes');
    expect(played.sent()).toEqual(['32 00 00 03']);
    played.until(31 * SECOND);
    played.hear(reading(0x32, 3, 72));
    expect(played.sent()).toEqual(['12 00 00 03', '22 00 00 04']);
  });

  // What lay in the link while the program was held up is as old as its time says, whatever the clocks.
  it('has ages that begin when the reading was sent', () => {
    const heartRate = (minutes: number) => {
      const packet = reading(0x12, 3, 72);
      new DataView(packet.buffer).setUint32(9, 1_000_000 + minutes * 60 * SECOND);
      return packet;
    };
    const ages = () =>
      played
        .events()
        .map((event) => event.kind === 'reading' && event.observation.ageMs(played.now.wallMs));
    played.hear(heartRate(0));
    expect(ages()).toEqual([0]);
    played.sleep(HOUR);
    played.hear(heartRate(1), heartRate(60));
    expect(ages()).toEqual([59 * 60 * SECOND, 0]);
    played.hear(heartRate(30)); // the watch's clock was set back
    expect(ages()).toEqual([0]);
  });

  it('says that there may be a gap before what is read in a hurry', () => {
    for (let i = 0; i < 64; ++i) {
      played.session.take(reading(0x12, 3, 72), played.now);
    }
    const unbroken = played
      .events()
      .map((event) => event.kind === 'reading' && event.observation.isUnbroken);
    expect([unbroken.at(-2), unbroken.at(-1)]).toEqual([true, false]);
  });

  it('takes a time of 0 for none', () => {
    played.hear('12 00 0E 03 11 00 00 00 00 00 00 00 00 42 90 00 00 00');
    expect(lastReading().watchTimeMs).toBeUndefined();
  });

  it('stops and starts an activity that is followed', () => {
    follow(Sensor.Activity);
    expect(played.sent()).toEqual(['14 00 00 01']);
    played.hear(reading(0x33, 1, 3)); // pushed before the stop
    expect(played.sent()).toEqual([]);
    played.hear('14 02 00 01');
    expect(played.sent()).toEqual(['23 00 00 01 00']);
    played.hear(reading(0x23, 1, 1), reading(0x23, 1, 2));
    expect(played.texts()).toEqual(['activity 3', 'activity 1', 'activity 2']);
    expect(played.session.deadlineMs).toBeUndefined();

    played.session.stop(Sensor.Activity, played.now);
    expect(played.sent()).toEqual(['34 00 00 01']);
    played.hear('34 02 00 01');
    expect(played.texts()).toEqual(['stopped activity #3']);
    expect(played.sent()).toEqual([]); // it is wanted no more
  });

  it('ends the link when a start is not answered', () => {
    follow(Sensor.Activity);
    played.hear('14 02 00 01');
    played.until(5 * SECOND);
    expect(played.texts()).toEqual(["lost: no answer to the start of 'activity' within 5 s"]);
    expect(played.session.wantsLink).toBe(false);
  });

  it('asks for steps that are followed once', () => {
    follow(Sensor.Pedometer);
    played.hear(reading(0x12, 2, 1), reading(0x12, 2, 3));
    played.until(HOUR);
    expect(played.sent()).toEqual(['12 00 00 02']);
    expect(played.texts()).toEqual(['steps 1', 'steps 3']);
  });

  it('measures a heart rate that is followed again after each answer', () => {
    follow(Sensor.HeartRate);
    played.hear(reading(0x12, 3, 71), reading(0x22, 3, 0));
    expect(played.sent()).toEqual(['12 00 00 03', '22 00 00 03', '32 00 00 03']);
    expect(played.texts()).toEqual(['hr 71', 'hr 0']);
  });

  it('keeps the pause that is wanted between two heart rates', () => {
    follow(Sensor.HeartRate, 60 * SECOND);
    played.sent();
    played.until(15 * SECOND);
    played.hear(reading(0x12, 3, 71));
    played.until(59_999);
    expect(played.sent()).toEqual([]);
    played.until(60_000);
    expect(played.sent()).toEqual(['22 00 00 03']);
  });

  it('asks for a worn state that is followed again only after its time', () => {
    follow(Sensor.WearState);
    played.hear(reading(0x12, 4, 1));
    played.until(3499);
    expect(played.sent()).toEqual(['12 00 00 04']);
    played.until(3500);
    expect(played.sent()).toEqual(['22 00 00 04']);
  });

  it('lets a measurement join the question of a sensor that is followed', () => {
    follow(Sensor.HeartRate);
    const request = measure(Sensor.HeartRate);
    played.hear(reading(0x12, 3, 71));
    expect(played.texts()).toEqual([`hr 71 #${request}`]);
    expect(played.sent()).toEqual(['12 00 00 03', '22 00 00 03']); // it is followed on
  });

  it('leaves a sensor out that does not answer, until it speaks', () => {
    follow(Sensor.HeartRate);
    played.until(60 * SECOND);
    expect(played.sent()).toEqual(['12 00 00 03']);
    expect(played.texts()).toEqual(["failed hr: no answer to the measurement of 'hr' within 20 s"]);
    played.hear(reading(0x12, 3, 70));
    expect(played.sent()).toEqual(['22 00 00 03']);
  });

  it('follows several sensors at a time', () => {
    [Sensor.WearState, Sensor.HeartRate, Sensor.Pedometer, Sensor.Activity].forEach((sensor) => {
      follow(sensor);
    });
    expect(played.sent()).toEqual(['12 00 00 04', '22 00 00 03', '32 00 00 02', '14 00 00 01']);
    played.hear('14 02 00 01', reading(0x12, 4, 1), reading(0x32, 2, 9));
    played.hear(reading(0x22, 3, 72), reading(0x23, 1, 2));
    expect(played.texts()).toEqual(['wear 1', 'steps 9', 'hr 72', 'activity 2']);
  });
});

describe('Session that counts steps', () => {
  beforeEach(() => {
    played = new PlayedSession(trusting(true));
    played.session.connected(played.now);
  });

  function steps(): number | undefined {
    return played.session.steps.days[0]?.steps;
  }

  it('asks for them until they are known', () => {
    measure(Sensor.Pedometer);
    played.hear(reading(0x12, 2, 100));
    expect(played.texts()).toEqual(['linked', 'steps 100 ?']);
    played.hear(reading(0x22, 2, 140));
    expect(played.sent()).toEqual(['12 00 00 02', '22 00 00 02']);
    const first = lastReading();
    expect(first.request).toBe(1);
    expect(first.steps?.steps).toMatchObject({ steps: 0, isExact: true });
    played.hear(reading(0x22, 2, 190)); // a count of 50 after one of 40
    expect(lastReading().steps).toMatchObject({ date: '2026-03-14', steps: { steps: 10 } });
  });

  it('asks twice after each loss for steps that are followed', () => {
    follow(Sensor.Pedometer);
    played.hear(reading(0x12, 2, 0), reading(0x22, 2, 0), reading(0x22, 2, 10));
    expect(played.sent()).toEqual(['12 00 00 02', '22 00 00 02']);
    played.session.lost('gone', played.now);
    played.until(SECOND);
    played.session.connected(played.now);
    // 20 were walked meanwhile: the total has grown by unseen counts, the count is 30.
    played.hear(reading(0x32, 2, 70), reading(0x12, 2, 100));
    expect(played.sent()).toEqual(['32 00 00 02', '12 00 00 02']);
    expect(steps()).toBe(30);
  });

  it('has an end of questions that do not help', () => {
    follow(Sensor.Pedometer);
    for (const first of [0x12, 0x22, 0x32, 0x12]) {
      played.hear(reading(first, 2, 0.5)); // no total at all
    }
    expect(played.sent()).toHaveLength(4);
    expect(played.texts().at(-1)).toBe('steps 1'); // what there is, it is settled
  });

  it('counts steps that nobody asks for without a question', () => {
    played.hear(reading(0x02, 2, 0), reading(0x02, 2, 10), reading(0x02, 2, 35));
    expect(played.sent()).toEqual([]);
    expect(steps()).toBe(15);
  });

  // A program that was stopped reads what the link had room for, and then what is new: the totals
  // between them are missing.
  it('does not count too many after it was held up', () => {
    follow(Sensor.Pedometer);
    played.hear(reading(0x12, 2, 0), reading(0x22, 2, 0));
    played.sleep(600 * SECOND);
    let total = 0;
    for (let count = 1; count <= 200; ++count) {
      total += count; // 800 more are dropped
      played.session.take(reading(0x22, 2, total), played.now);
    }
    played.session.advance(played.now);
    played.sent();
    for (const [first, sum] of [
      [0x22, 501500],
      [0x32, 502500],
      [0x12, 503500],
    ] as const) {
      played.hear(reading(first, 2, sum));
    }
    expect(played.session.steps.days[0]).toMatchObject({ steps: 1000, isExact: true });
  });

  it('takes a call that comes long after its deadline for missed pushes', () => {
    follow(Sensor.Pedometer);
    played.hear(reading(0x12, 2, 0), reading(0x22, 2, 0), reading(0x22, 2, 10));
    measure(Sensor.HeartRate);
    played.sleep(30 * SECOND);
    played.session.advance(played.now);
    expect(played.session.steps.wantsQuestion).toBe(true);
    expect(played.session.latest(Sensor.Pedometer)?.isUnbroken).toBe(false);
  });

  it('asks again for what is followed when packets may have been dropped', () => {
    follow(Sensor.HeartRate);
    follow(Sensor.Pedometer);
    played.hear(reading(0x22, 2, 0), reading(0x32, 2, 0));
    expect(played.sent()).toEqual(['12 00 00 03', '22 00 00 02', '32 00 00 02']);
    played.texts();
    played.sleep(30 * SECOND); // the answer of the heart rate may have come, and had no room
    played.session.advance(played.now);
    expect(played.sent()).toEqual(['12 00 00 02', '22 00 00 03']);
    expect(played.texts()).toEqual([]);
  });
});
