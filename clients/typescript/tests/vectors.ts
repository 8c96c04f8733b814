import { readFileSync } from 'node:fs';

/** A packet's decoded form in the vectors; its members depend on its kind. */
export type Packet = Record<string, unknown> & { kind: string };

export interface Vector {
  name: string;
  bytes: string;
  packet: Packet | null;
  tolerated?: boolean;
  seconds?: number;
  error?: { offset: number; field: string; expected: string; found: string };
}

export interface ExchangeEvent {
  at_ms: number;
  link?: 'up' | 'lost';
  happens?: string;
  from?: 'phone' | 'watch';
  bytes?: string;
  packet?: Packet | null;
  answers?: number;
  count?: number;
  walked?: number;
}

export interface Exchange {
  name: string;
  /** Seconds since 1970-01-01 UTC. */
  begins: number;
  events: ExchangeEvent[];
}

export interface LedgerEvent {
  link?: string;
  missed?: true;
  restored?: true;
  total?: number;
  watch_s?: number | null;
  at_ms?: number;
  unsure: boolean;
}

export interface Ledger {
  name: string;
  zone: [from: number, offset: number][];
  events: LedgerEvent[];
  text: string[];
}

function read(file: string): unknown {
  const url = new URL(`../../../docs/vectors/${file}`, import.meta.url);
  const whole = JSON.parse(readFileSync(url, 'utf8')) as { format: number };
  if (whole.format !== 1) {
    throw new Error(`${file} has the format ${whole.format}`);
  }
  return whole;
}

export function vectors(file: string): Vector[] {
  return (read(file) as { vectors: Vector[] }).vectors;
}

export function exchanges(): Exchange[] {
  return (read('exchanges.json') as { exchanges: Exchange[] }).exchanges;
}

export function ledgers(): Ledger[] {
  return (read('ledgers.json') as { ledgers: Ledger[] }).ledgers;
}

/** Every packet that somebody sends or may send, those of the exchanges after the others. */
export function sentBy(from: 'phone' | 'watch'): Vector[] {
  const alone = vectors(from === 'phone' ? 'requests.json' : 'replies.json');
  const exchanged = exchanges().flatMap(({ name, begins, events }) =>
    events
      .filter((event) => event.from === from)
      .map(({ at_ms: at, bytes = '', packet = null }) => {
        const vector = { name: `${name}, at ${at} ms`, bytes, packet };
        const seconds = begins + Math.floor(at / 1000);
        return packet?.['time_ms'] === (1000 * seconds) % 2 ** 32 ? { ...vector, seconds } : vector;
      }),
  );
  return [...alone, ...exchanged];
}

export function fromHex(text: string): Uint8Array {
  return Uint8Array.from(text.split(' ').filter(Boolean), (byte) => parseInt(byte, 16));
}

/** "12 00 0E". */
export function toHex(bytes: Uint8Array): string {
  return Array.from(bytes, (byte) => byte.toString(16).toUpperCase().padStart(2, '0')).join(' ');
}

/** Members that are called `float`. */
const FLOATS = ['largest', 'resolution', 'smallest', 'value'];

/** The decoded form of the vectors with the names of this package: `delay_ms` is `delayMs`. */
export function named(packet: Packet): Record<string, unknown> {
  const members = Object.entries(packet).map(([name, value]) => [
    name.replace('_ms', 'Ms'),
    FLOATS.includes(name) ? Math.fround(Number(value)) : value,
  ]);
  return Object.fromEntries(members) as Record<string, unknown>;
}
