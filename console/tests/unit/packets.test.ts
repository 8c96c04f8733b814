import { readFileSync } from 'node:fs';

import { describe as group, expect, it } from 'vitest';

import { describe, hex, parseHex } from '../../src/phone/packets.js';

interface Vector {
  readonly name: string;
  readonly bytes: string;
  /** Null: none is read. */
  readonly packet: { readonly kind: string; readonly flags: number } | null;
  /** What the watch knows none of. */
  readonly dropped?: string;
}

function vectors(name: string): Vector[] {
  const file = new URL(`../../../docs/vectors/${name}.json`, import.meta.url);
  return (JSON.parse(readFileSync(file, 'utf8')) as { vectors: Vector[] }).vectors;
}

function bytesOf(text: string): Uint8Array {
  return text === '' ? new Uint8Array() : parseHex(text);
}

group('a packet in words', () => {
  it.each(vectors('requests'))('of the phone: $name', ({ bytes, packet, dropped }) => {
    const told = describe('phone', bytesOf(bytes), 0);
    expect(told.kind).toBe(packet?.kind ?? 'dropped');
    expect(told.fields).toContain(`flags ${packet?.flags ?? ''}`);
    const wrong =
      dropped === undefined ? 'undefined' : `there is no ${dropped} \\d+: the watch drops it`;
    expect(String(told.wrong)).toMatch(new RegExp(`^${wrong}$`));
  });

  it.each(vectors('replies'))('of the watch: $name', ({ bytes, packet }) => {
    const told = describe('watch', bytesOf(bytes), Date.UTC(2026, 0, 31));
    expect(told.kind).toBe(packet?.kind);
    expect(told.fields).toContain(`flags ${packet?.flags ?? ''}`);
    expect(told.wrong).toBeUndefined();
  });

  it.each(vectors('malformed'))('that is none: $name', ({ bytes }) => {
    const told = describe('watch', bytesOf(bytes), 0);
    expect(told.kind).toBe('malformed');
    expect(told.wrong).toMatch(/^.+ \(offset \d+\): expected .+, found .+$/);
  });
});

group('bytes that are typed', () => {
  it.each(['14 00 00 01', '14000001', '0x14 0x00, 00:01'])('are read: %s', (text) => {
    expect(hex(parseHex(text))).toBe('14 00 00 01');
  });

  it.each([
    ['', /no bytes/],
    ['1', /half a byte/],
    ['1g', /hexadecimal/],
  ])('are refused: "%s"', (text, why) => {
    expect(() => parseHex(text)).toThrow(why);
  });
});
