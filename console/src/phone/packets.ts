import {
  activityName,
  decode,
  DecodeError,
  fullTimeMs,
  Sensor,
  sensorName,
  type Reply,
} from '@parvane/client';

/** Who has sent a packet. */
export type Sender = 'phone' | 'watch';

/** A packet in words. */
export interface Described {
  /** By its name in the project's vectors; "malformed" for what is none, "dropped" for what the watch passes over. */
  readonly kind: string;
  readonly fields: string;
  /** What is wrong with it. */
  readonly wrong?: string;
}

const COMMANDS: Readonly<Record<number, string>> = {
  1: 'list',
  2: 'measure',
  3: 'start',
  4: 'stop',
};

/** @param atMs - when it was sent, in ms since 1970: the wire has the time of a reading without its upper half */
export function describe(sender: Sender, bytes: Uint8Array, atMs: number): Described {
  return sender === 'phone' ? describeRequest(bytes) : describeReply(bytes, atMs);
}

/** What the watch reads in the bytes of a phone. One that is missing counts as 0. */
function describeRequest(bytes: Uint8Array): Described {
  const [first = 0, , , sensor = 0, format = 0] = bytes;
  const flags = (first >> 4) & 3;
  const kind = COMMANDS[first & 15];
  if (kind === undefined) {
    const wrong = `there is no command ${first & 15}: the watch drops it`;
    return { kind: 'dropped', fields: `flags ${flags}`, wrong };
  }
  const fields = [`flags ${flags}`];
  if (kind !== 'list') {
    fields.unshift(sensorText(sensor));
  }
  if (kind === 'start') {
    fields.push(`format ${format}`);
  }
  if ((first & 0x40) !== 0) {
    fields.push('code');
  }
  const told = { kind, fields: fields.join(', ') };
  const isKnown = kind === 'list' || sensorName(sensor) !== 'unknown';
  return isKnown ? told : { ...told, wrong: `there is no sensor ${sensor}: the watch drops it` };
}

function describeReply(bytes: Uint8Array, atMs: number): Described {
  try {
    const reply = decode(bytes);
    return { kind: reply.kind, fields: replyFields(reply, atMs) };
  } catch (error) {
    const wrong = error instanceof DecodeError ? error.message : String(error);
    return { kind: 'malformed', fields: '', wrong };
  }
}

function replyFields(reply: Reply, atMs: number): string {
  switch (reply.kind) {
    case 'list-header':
      return `${reply.count} sensors, address ${reply.address ?? 'unknown'}, flags ${reply.flags}`;
    case 'entry':
      return (
        `${reply.position}: ${sensorText(reply.sensor)}, ${reply.smallest} to ${reply.largest}, ` +
        `step ${reply.resolution}, every ${reply.delayMs / 1000} s, flags ${reply.flags}`
      );
    case 'reading': {
      const time =
        reply.timeMs === 0
          ? 'no time'
          : new Date(fullTimeMs(reply.timeMs, atMs)).toLocaleTimeString(undefined, {
              hour12: false,
            });
      const how = reply.command === 2 ? 'measured' : 'pushed';
      return `${sensorText(reply.sensor)}, ${wireValue(reply.sensor, reply.value)}, ${how}, ${time}, flags ${reply.flags}`;
    }
    default:
      return `${sensorText(reply.sensor)}, flags ${reply.flags}`;
  }
}

/** "hr", "sensor 9". */
function sensorText(sensor: number): string {
  const name = sensorName(sensor);
  return name === 'unknown' ? `sensor ${sensor}` : name;
}

function wireValue(sensor: number, value: number): string {
  switch (sensor) {
    case Sensor.HeartRate:
      return `${value} bpm`;
    case Sensor.Pedometer:
      return `total ${value}`;
    case Sensor.WearState:
      return value > 0 ? 'worn' : 'not worn';
    case Sensor.Activity:
      return activityName(value) ?? String(value);
    default:
      return String(value);
  }
}

/** "14 00 00 01". */
export function hex(bytes: Uint8Array): string {
  return Array.from(bytes, (byte) => byte.toString(16).padStart(2, '0')).join(' ');
}

/**
 * Bytes from what a person types: pairs of hexadecimal digits, with blanks, colons or commas between them or not.
 *
 * @throws Error that says what is wrong
 */
export function parseHex(text: string): Uint8Array {
  const digits = text.replace(/0x/gi, '').replace(/[\s,:]/g, '');
  if (!/^[0-9a-f]*$/i.test(digits)) {
    throw new Error('bytes are hexadecimal digits, such as 14 00 00 01');
  }
  if (digits.length === 0) {
    throw new Error('no bytes');
  }
  if (digits.length % 2 !== 0) {
    throw new Error('half a byte: there must be two digits for each');
  }
  return Uint8Array.from(digits.match(/../g) ?? [], (pair) => parseInt(pair, 16));
}
