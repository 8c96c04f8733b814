/**
 * Readings with what makes them worth something: age, validity, worn or not. No clock, no I/O.
 *
 * @module
 */
import { activityName, Sensor, type Reading } from './messages.js';

/** Whether the watch was worn, as far as it was told around a reading. */
export type Worn = 'unknown' | 'yes' | 'no';

/** How long what is told of the worn state holds for the readings after it, in milliseconds. */
export const WORN_HOLDS_MS = 60_000;

/** A reading with what makes it worth something: never a bare number that may be an hour old. */
export class Observation {
  constructor(
    readonly sensor: number,
    /** As in {@link Reading}; of the steps it is the total on the wire. */
    readonly value: number,
    /** When it was sent, in milliseconds since 1970-01-01 UTC by the phone's clock. */
    readonly at: number,
    readonly worn: Worn,
    /** The link has been there since, without a gap. */
    readonly isUnbroken: boolean,
  ) {}

  /** Whether it is one: a heart rate of 0 says that there is none. */
  get isMeasurement(): boolean {
    return this.sensor !== Sensor.HeartRate || this.value > 0;
  }

  /** Milliseconds since the watch has sent it; 0 for a clock that has gone back. */
  ageMs(nowMs: number): number {
    return Math.max(nowMs - this.at, 0);
  }

  /**
   * One line: "72 bpm, 4 s ago, worn", "walking, 1 min ago, before the link was lost",
   * "no reading: the watch is not worn".
   */
  text(nowMs: number): string {
    if (!this.isMeasurement && this.worn === 'no') {
      return 'no reading: the watch is not worn';
    }
    const parts = [
      this.isMeasurement ? valueText(this.sensor, this.value) : 'no usable reading',
      ageText(this.ageMs(nowMs)),
    ];
    if (this.worn !== 'unknown' && this.sensor !== Sensor.WearState) {
      parts.push(this.worn === 'yes' ? 'worn' : 'not worn');
    }
    if (!this.isUnbroken) {
      parts.push('before the link was lost');
    }
    return parts.join(', ');
  }
}

/** The latest reading of each sensor. */
export class Observations {
  readonly #latest = new Map<number, Observation>();

  /** Enters a reading that was sent at `atMs`, in milliseconds since 1970-01-01 UTC. */
  take({ sensor, value }: Reading, atMs: number): Observation {
    const told: Worn = value > 0 ? 'yes' : 'no';
    const worn = sensor === Sensor.WearState ? told : this.wornAt(atMs);
    const observation = new Observation(sensor, value, atMs, worn, true);
    this.#latest.set(sensor, observation);
    return observation;
  }

  /** The link was lost, or readings were missed: what is there is from before that. */
  break(): void {
    for (const [key, { sensor, value, at, worn }] of this.#latest) {
      this.#latest.set(key, new Observation(sensor, value, at, worn, false));
    }
  }

  /** Undefined before the first reading of the sensor. */
  latest(sensor: number): Observation | undefined {
    return this.#latest.get(sensor);
  }

  /** What is known of the worn state at an instant, in milliseconds since 1970-01-01 UTC. */
  wornAt(atMs: number): Worn {
    const told = this.latest(Sensor.WearState);
    return told?.isUnbroken && told.ageMs(atMs) <= WORN_HOLDS_MS ? told.worn : 'unknown';
  }
}

/** In the largest unit of which there is one at least, and without what is left. */
function ageText(ageMs: number): string {
  const seconds = Math.floor(ageMs / 1000);
  for (const [unit, length] of [
    ['d', 86400],
    ['h', 3600],
    ['min', 60],
  ] as const) {
    if (seconds >= length) {
      return `${Math.floor(seconds / length)} ${unit} ago`;
    }
  }
  return `${seconds} s ago`;
}

function valueText(sensor: number, value: number): string {
  const number = String(Math.round(value));
  switch (sensor) {
    case Sensor.Activity:
      return activityName(value) ?? `unknown activity ${number}`;
    case Sensor.Pedometer:
      return `total on the wire ${number}`;
    case Sensor.HeartRate:
      return `${number} bpm`;
    case Sensor.WearState:
      return value > 0 ? 'worn' : 'not worn';
    default:
      return number;
  }
}
