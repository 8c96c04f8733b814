import type { LoggedPacket } from './packet-log.js';

const LINKTYPE_USER0 = 147;
const COMMENT = 1;
const FLAGS = 2;

/** A capture as docs/capture.md has it, for Wireshark. */
export function toPcapng(packets: readonly LoggedPacket[]): Uint8Array<ArrayBuffer> {
  const blocks = [
    block(0x0a0d0d0a, [u32(0x1a2b3c4d), u16(1), u16(0), u32(0xffffffff), u32(0xffffffff)]),
    block(1, [u16(LINKTYPE_USER0), u16(0), u32(0)]),
    ...packets.map(packetBlock),
  ];
  return joined(blocks);
}

function packetBlock({ atMs, bytes, sender, beginsLink }: LoggedPacket): Uint8Array {
  const micros = BigInt(Math.round(1000 * atMs));
  return block(6, [
    u32(0), // the interface
    u32(Number(micros >> 32n)),
    u32(Number(micros & 0xffffffffn)),
    u32(bytes.length),
    u32(bytes.length),
    padded(bytes),
    ...(beginsLink ? [option(COMMENT, new TextEncoder().encode('link begins'))] : []),
    option(FLAGS, u32(sender === 'phone' ? 2 : 1)), // outbound, inbound
    u32(0), // the end of the options
  ]);
}

function block(type: number, body: readonly Uint8Array[]): Uint8Array {
  const length = 12 + body.reduce((sum, part) => sum + part.length, 0);
  return joined([u32(type), u32(length), ...body, u32(length)]);
}

function option(code: number, value: Uint8Array): Uint8Array {
  return joined([u16(code), u16(value.length), padded(value)]);
}

function padded(bytes: Uint8Array): Uint8Array {
  const out = new Uint8Array(Math.ceil(bytes.length / 4) * 4);
  out.set(bytes);
  return out;
}

function u16(value: number): Uint8Array {
  return Uint8Array.of(value & 255, value >> 8);
}

function u32(value: number): Uint8Array {
  return Uint8Array.of(value & 255, (value >> 8) & 255, (value >> 16) & 255, value >>> 24);
}

function joined(parts: readonly Uint8Array[]): Uint8Array<ArrayBuffer> {
  const out = new Uint8Array(parts.reduce((sum, part) => sum + part.length, 0));
  let at = 0;
  for (const part of parts) {
    out.set(part, at);
    at += part.length;
  }
  return out;
}
