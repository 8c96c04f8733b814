import { expect, it } from 'vitest';

import { PacketLog, toJson, toText } from '../../src/phone/packet-log.js';
import { parseHex } from '../../src/phone/packets.js';
import { toPcapng } from '../../src/phone/pcapng.js';

const AT = Date.UTC(2026, 0, 31, 12, 34, 56);
const STOP = parseHex('14 00 00 01');
const STOPPED = parseHex('14 02 00 01');

function logged(): PacketLog {
  const log = new PacketLog();
  log.linkBegins();
  log.add('phone', STOP, AT);
  log.add('watch', STOPPED, AT + 2.5);
  log.add('watch', parseHex('14 02'), AT + 3);
  return log;
}

it('tells how long an answer took, once', () => {
  const log = logged();
  log.add('watch', STOPPED, AT + 9);
  expect(log.packets.value.map(({ kind, answerMs }) => [kind, answerMs])).toEqual([
    ['stop', undefined],
    ['stop-ack', 2.5],
    ['malformed', undefined],
    ['stop-ack', undefined],
  ]);
});

it('has the steps answer whatever asked for them, with whatever flags', () => {
  const log = new PacketLog();
  log.add('phone', parseHex('22 00 00 02'), AT);
  const reading = new Uint8Array(18);
  reading.set([0x03, 0, 14, 2, 17]);
  log.add('watch', reading, AT + 500);
  expect(log.packets.value[1]).toMatchObject({ kind: 'reading', answerMs: 500 });
});

it('expects no answer of a link that is gone', () => {
  const log = new PacketLog();
  log.add('phone', STOP, AT);
  log.linkBegins();
  log.add('watch', STOPPED, AT + 1);
  expect(log.packets.value[1]?.answerMs).toBeUndefined();
});

it('keeps the latest packets, and no more', () => {
  const log = new PacketLog();
  for (let count = 0; count < 25_000; count += 1) {
    log.add('phone', STOP, AT + count);
  }
  const { value } = log.packets;
  expect(value.length).toBeLessThanOrEqual(10_000);
  expect(value.at(-1)?.number).toBe(25_000);
});

it('is stored as JSON and as text', () => {
  const { value } = logged().packets;
  const list = JSON.parse(toJson(value)) as Record<string, unknown>[];
  expect(list[1]).toEqual({
    time: '2026-01-31T12:34:56.002Z',
    from: 'watch',
    bytes: '14 02 00 01',
    kind: 'stop-ack',
    fields: 'activity, flags 1',
    answer_ms: 2.5,
  });
  expect(list[2]?.['wrong']).toMatch(/packet size/);
  expect(toText(value).split('\n')[0]).toBe(
    '2026-01-31T12:34:56.000Z\t>\t14 00 00 01\tstop\tactivity, flags 1',
  );
});

it('is stored as a capture', () => {
  const bytes = toPcapng(logged().packets.value.slice(0, 2));
  const view = new DataView(bytes.buffer);
  const types: number[] = [];
  for (let at = 0; at < bytes.length;) {
    const length = view.getUint32(at + 4, true);
    types.push(view.getUint32(at, true));
    expect(view.getUint32(at + length - 4, true), 'the length behind a block').toBe(length);
    if (types.at(-1) === 6) {
      const micros = 2 ** 32 * view.getUint32(at + 12, true) + view.getUint32(at + 16, true);
      expect(micros).toBe(1000 * AT + (types.length === 3 ? 0 : 2500));
      expect(view.getUint32(at + 20, true)).toBe(4);
      const flags = view.getUint32(at + length - 12, true); // the last option before the end of them
      expect(flags, 'the direction').toBe(types.length === 3 ? 2 : 1);
    }
    at += length;
  }
  expect(types).toEqual([0x0a0d0d0a, 1, 6, 6]);
  expect(view.getUint16(28 + 8, true)).toBe(147);
  expect(new TextDecoder('latin1').decode(bytes)).toContain('link begins');
});
