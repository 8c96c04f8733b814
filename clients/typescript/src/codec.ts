/**
 * The wire codec of the phone's side: requests to bytes, bytes to replies. No state, no I/O.
 *
 * @module
 */
import type { Flags, ListHeader, Reading, Reply, Request, SensorEntry } from './messages.js';

const COMMAND_CODES = { list: 1, measure: 2, start: 3, stop: 4 } as const;
const OPTION_COMMAND = 5;
const COMMAND_MASK = 0x0f;
const CODE_BIT = 0x40;
const LIST_BIT = 0x80;
const ENTRY_MARK_BASE = 0x40;

/** The longest message that the link carries, in bytes, in either direction. */
export const MAX_MESSAGE_BYTES = 65531;

/** Bytes that are no packet of the watch: the first thing that was found wrong. */
export class DecodeError extends Error {
  override readonly name = 'DecodeError';
  /** Of the first byte of the field; for a wrong size, the size itself. */
  readonly offset: number;
  /** "packet size", "value" and so on. */
  readonly field: string;
  readonly expected: string;
  readonly found: string;

  constructor(offset: number, field: string, expected: string, found: string) {
    super(`${field} (offset ${offset}): expected ${expected}, found ${found}`);
    this.offset = offset;
    this.field = field;
    this.expected = expected;
    this.found = found;
  }
}

/**
 * The packet that carries `request`: 4 bytes, 5 for a start.
 *
 * @throws RangeError for flags, a sensor or a format that its field has no room for
 */
export function encode(request: Request): Uint8Array {
  const packet = new Uint8Array(request.kind === 'start' ? 5 : 4);
  const code = request.code === true ? CODE_BIT : 0;
  packet[0] = COMMAND_CODES[request.kind] | (upTo(3, request.flags, 'flags') << 4) | code;
  if (request.kind !== 'list') {
    packet[3] = upTo(255, request.sensor, 'sensor');
  }
  if (request.kind === 'start') {
    packet[4] = upTo(255, request.format, 'format');
  }
  return packet;
}

/**
 * Reads one packet of the watch, whole.
 *
 * Bytes of any number and content may be given. The size tells the kind: 13 bytes are a list header,
 * 25 a sensor entry, 18 a reading, and 4 a stop acknowledgement or an option reply. Values with a good
 * form but no meaning (an unknown sensor, activity 7) are no errors.
 *
 * @throws {@link DecodeError}
 */
export function decode(bytes: Uint8Array): Reply {
  const packet = new Packet(bytes);
  switch (bytes.length) {
    case 4:
      return decodeFourBytes(packet);
    case 13:
      return decodeListHeader(packet);
    case 18:
      return decodeReading(packet);
    case 25:
      return decodeEntry(packet);
    default:
      throw new DecodeError(
        bytes.length,
        'packet size',
        '4, 13, 18 or 25 bytes',
        `${bytes.length} bytes`,
      );
  }
}

/** A packet with its checks, each of which throws a {@link DecodeError}. */
class Packet {
  readonly view: DataView;

  constructor(bytes: Uint8Array) {
    this.view = new DataView(bytes.buffer, bytes.byteOffset, bytes.byteLength);
  }

  byte(offset: number): number {
    return this.view.getUint8(offset);
  }

  get command(): number {
    return this.byte(0) & COMMAND_MASK;
  }

  get flags(): Flags {
    return ((this.byte(0) >> 4) & 3) as Flags;
  }

  /** Bits 6 and 7 of the first byte: the one is never set in a reply, the other in list packets only. */
  expectHeaderBits(isList: boolean): void {
    const header = this.byte(0);
    if ((header & CODE_BIT) !== 0) {
      throw new DecodeError(0, 'header byte', 'bit 6 clear', hexByte(header));
    }
    if (((header & LIST_BIT) !== 0) !== isList) {
      throw new DecodeError(0, 'header byte', `bit 7 ${isList ? 'set' : 'clear'}`, hexByte(header));
    }
  }

  wrongCommand(expected: string): DecodeError {
    return new DecodeError(0, 'command', expected, String(this.command));
  }

  expectByte(offset: number, expected: number, field: string): void {
    if (this.byte(offset) !== expected) {
      throw new DecodeError(offset, field, hexByte(expected), hexByte(this.byte(offset)));
    }
  }

  finite(offset: number, field: string): number {
    const value = this.view.getFloat32(offset);
    if (!Number.isFinite(value)) {
      const found = Number.isNaN(value) ? 'not a number' : 'infinity';
      throw new DecodeError(offset, field, 'a finite number', found);
    }
    return value;
  }
}

function decodeFourBytes(packet: Packet): Reply {
  packet.expectHeaderBits(false);
  const { flags } = packet;
  const sensor = packet.byte(3);
  switch (packet.command) {
    case COMMAND_CODES.stop:
      packet.expectByte(1, 2, 'byte 1 of a stop acknowledgement');
      return { kind: 'stop-ack', flags, sensor };
    case OPTION_COMMAND:
      packet.expectByte(1, 0, 'byte 1 of an option reply');
      packet.expectByte(2, 2, 'length of an option reply');
      return { kind: 'option', flags, sensor };
    default:
      throw packet.wrongCommand('4 (stop) or 5 (option)');
  }
}

function decodeReading(packet: Packet): Reading {
  packet.expectHeaderBits(false);
  const { command, flags } = packet;
  if (command !== COMMAND_CODES.measure && command !== COMMAND_CODES.start) {
    throw packet.wrongCommand('2 (measure once) or 3 (start)');
  }
  packet.expectByte(1, 0, 'byte 1 of a reading');
  packet.expectByte(2, 14, 'length of a reading');
  packet.expectByte(4, 17, 'byte 4 of a reading');
  const value = packet.finite(13, 'value');
  const timeMs = packet.view.getUint32(9);
  return { kind: 'reading', command, flags, sensor: packet.byte(3), timeMs, value };
}

function expectListPacket(packet: Packet): void {
  packet.expectHeaderBits(true);
  if (packet.command !== COMMAND_CODES.list) {
    throw packet.wrongCommand('1 (sensor list)');
  }
}

function decodeListHeader(packet: Packet): ListHeader {
  expectListPacket(packet);
  packet.expectByte(1, 0x80, 'byte 1 of a list header');
  packet.expectByte(2, 10, 'length of a list header');
  packet.expectByte(3, 3, 'byte 3 of a list header');
  const octets = [6, 7, 8, 9, 10, 11].map((offset) => packet.byte(offset));
  const isKnown = octets.some((octet) => octet !== 0);
  const address = isKnown ? octets.map((octet) => hexByte(octet).slice(2)).join(':') : null;
  return { kind: 'list-header', flags: packet.flags, address, count: packet.byte(12) };
}

function decodeEntry(packet: Packet): SensorEntry {
  expectListPacket(packet);
  const sensor = packet.byte(4);
  packet.expectByte(2, 21, 'length of a sensor entry');
  packet.expectByte(3, (sensor + ENTRY_MARK_BASE) & 0xff, 'byte 3 of a sensor entry');
  const largest = packet.finite(6, 'range');
  const resolution = packet.finite(10, 'resolution');
  const smallest = packet.finite(14, 'smallest value');
  packet.expectByte(24, 0, 'last byte of a sensor entry');
  return {
    kind: 'entry',
    flags: packet.flags,
    position: packet.byte(1),
    sensor,
    available: packet.byte(5),
    largest,
    resolution,
    smallest,
    delayMs: packet.view.getInt32(18),
    reserved: packet.view.getInt16(22),
  };
}

function hexByte(value: number): string {
  return `0x${value.toString(16).toUpperCase().padStart(2, '0')}`;
}

function upTo(most: number, value: number, field: string): number {
  if (!Number.isInteger(value) || value < 0 || value > most) {
    throw new RangeError(`${field} is ${value}, and must be 0 to ${most}`);
  }
  return value;
}
