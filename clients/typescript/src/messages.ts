/**
 * What crosses the link between phone and watch, decoded. The contract is the project's page on the
 * wire format; the decoded forms have the names of its vectors.
 *
 * @module
 */

/** The ids of the sensors. A packet may carry any byte here; one without a name is kept as it is. */
export const Sensor = {
  Activity: 1,
  Pedometer: 2,
  HeartRate: 3,
  WearState: 4,
} as const;
/** One of the four sensors that have a name. */
export type Sensor = (typeof Sensor)[keyof typeof Sensor];

/** The values of the readings of {@link Sensor.Activity}. */
export const Activity = {
  StillOrOther: 0,
  Walking: 1,
  Running: 2,
  WristGesture: 3,
} as const;

/** "activity", "steps", "hr", "wear"; "unknown" for an id without a name. */
export function sensorName(sensor: number): string {
  return ['activity', 'steps', 'hr', 'wear'][sensor - 1] ?? 'unknown';
}

/** "still or other", "walking", "running", "wrist gesture"; undefined for any other value. */
export function activityName(value: number): string | undefined {
  return ['still or other', 'walking', 'running', 'wrist gesture'][value];
}

/** Two bits that the watch copies into its replies; the wire format says which reply carries whose. */
export type Flags = 0 | 1 | 2 | 3;

interface RequestBase {
  readonly flags: Flags;
  /** Bit 6 of the first byte, which the watch serves alike. Left out: not set. */
  readonly code?: boolean;
}

/** Asks for the sensors of the watch. */
export interface ListRequest extends RequestBase {
  readonly kind: 'list';
}

/** Asks for one reading of a sensor. */
export interface MeasureRequest extends RequestBase {
  readonly kind: 'measure';
  readonly sensor: number;
}

/** Has the watch push a sensor. */
export interface StartRequest extends RequestBase {
  readonly kind: 'start';
  readonly sensor: number;
  /** 0 to 5; the watch reads anything larger, up to 255, as its default. */
  readonly format: number;
}

/** Ends the pushing of a sensor. */
export interface StopRequest extends RequestBase {
  readonly kind: 'stop';
  readonly sensor: number;
}

/** One request to the watch. */
export type Request = ListRequest | MeasureRequest | StartRequest | StopRequest;

/** The first packet of the answer to a {@link ListRequest}. */
export interface ListHeader {
  readonly kind: 'list-header';
  readonly flags: Flags;
  /** The watch's Bluetooth address as AA:BB:CC:DD:EE:FF; null where it knows none. */
  readonly address: string | null;
  /** {@link SensorEntry} packets that follow. */
  readonly count: number;
}

/** One sensor of the watch. */
export interface SensorEntry {
  readonly kind: 'entry';
  readonly flags: Flags;
  /** In the list, from 1. */
  readonly position: number;
  readonly sensor: number;
  /** 1 yes, 0 no. */
  readonly available: number;
  /** In the unit of the sensor's readings, as the two below; finite. */
  readonly largest: number;
  readonly resolution: number;
  readonly smallest: number;
  /** The smallest delay between two readings, in milliseconds; signed. */
  readonly delayMs: number;
  readonly reserved: number;
}

/** One reading: an answer, or pushed by the watch unasked. */
export interface Reading {
  readonly kind: 'reading';
  /** 2 measured, 3 started. */
  readonly command: 2 | 3;
  readonly flags: Flags;
  readonly sensor: number;
  /** Milliseconds since 1970-01-01 UTC modulo 2^32; 0: the watch knows no time. See {@link fullTimeMs}. */
  readonly timeMs: number;
  /** Finite. Beats a minute; the total of the day; 1 worn, 0 not worn; an {@link Activity}. */
  readonly value: number;
}

/** The acknowledgement of a {@link StopRequest}. */
export interface StopAck {
  readonly kind: 'stop-ack';
  readonly flags: Flags;
  readonly sensor: number;
}

/** The reply to an option request, without an option value. Watches of today never send it. */
export interface OptionReply {
  readonly kind: 'option';
  readonly flags: Flags;
  readonly sensor: number;
}

/** Any packet from the watch. */
export type Reply = ListHeader | SensorEntry | Reading | StopAck | OptionReply;

const WRAP_MS = 2 ** 32;

/**
 * The time of a reading in milliseconds since 1970-01-01 UTC.
 *
 * The wire carries it modulo 2^32 (about 49.7 days). Of the times that fit `fieldMs`, the one nearest
 * to `nowMs` is returned; of two equally near ones, the earlier.
 *
 * @param fieldMs - {@link Reading.timeMs}, not 0
 * @param nowMs - the phone's clock, right within 24 days
 */
export function fullTimeMs(fieldMs: number, nowMs: number): number {
  const now = Math.floor(nowMs);
  const low = now - Math.floor(now / WRAP_MS) * WRAP_MS;
  return now + ((fieldMs - low) | 0);
}
