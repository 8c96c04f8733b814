import { describe, expect, it } from 'vitest';

import { decode, DecodeError, encode, fullTimeMs, type Request } from '../src/index.js';
import { fromHex, named, sentBy, vectors } from './vectors.js';

describe('requests are encoded as they stand', () => {
  const sent = sentBy('phone').filter(({ packet, tolerated }) => packet && !tolerated);
  it.each(sent)('$name', ({ packet, bytes }) => {
    expect(encode(packet as unknown as Request)).toEqual(fromHex(bytes));
  });

  it('more than 60 of them', () => {
    expect(sent.length).toBeGreaterThan(60);
  });
});

describe('replies are decoded as they stand', () => {
  it.each(sentBy('watch'))('$name', ({ packet, bytes }) => {
    expect(decode(fromHex(bytes))).toEqual(packet && named(packet));
  });
});

describe('malformed packets are refused with their error', () => {
  it.each(vectors('malformed.json'))('$name', ({ error, bytes }) => {
    let thrown: unknown;
    try {
      decode(fromHex(bytes));
    } catch (caught) {
      thrown = caught;
    }
    expect(thrown).toBeInstanceOf(DecodeError);
    const { offset, field, expected, found } = thrown as DecodeError;
    expect({ offset, field, expected, found }).toEqual(error);
  });
});

describe('times are completed by a clock that is days off', () => {
  const DAYS_MS = 24 * 24 * 3600 * 1000;
  const timed = sentBy('watch').filter(({ seconds }) => seconds !== undefined);
  it.each(timed)('$name', ({ packet, seconds }) => {
    const timeMs = Number(seconds) * 1000;
    const field = Number(packet?.['time_ms']);
    for (const off of [-DAYS_MS, 0, DAYS_MS]) {
      expect(fullTimeMs(field, timeMs + off)).toBe(timeMs);
    }
  });

  it('of two equally near ones it is the earlier', () => {
    expect(fullTimeMs(2 ** 31, 0)).toBe(-(2 ** 31));
  });
});

describe('encode', () => {
  it.each([
    [{ kind: 'list', flags: 4 }, 'flags is 4, and must be 0 to 3'],
    [{ kind: 'measure', flags: 0, sensor: 256 }, 'sensor is 256, and must be 0 to 255'],
    [{ kind: 'start', flags: 0, sensor: 1, format: -1 }, 'format is -1, and must be 0 to 255'],
    [{ kind: 'stop', flags: 0, sensor: 1.5 }, 'sensor is 1.5, and must be 0 to 255'],
  ])('refuses %j', (request, message) => {
    expect(() => encode(request as Request)).toThrow(new RangeError(message));
  });
});

it('decode reads a view of a larger buffer', () => {
  const whole = fromHex('FF FF 14 02 00 03 FF');
  expect(decode(whole.subarray(2, 6))).toEqual({ kind: 'stop-ack', flags: 1, sensor: 3 });
});
