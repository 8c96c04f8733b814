import { State } from '../state.js';
import { describe, hex, type Described, type Sender } from './packets.js';

/** One packet that has crossed the link. */
export interface LoggedPacket extends Described {
  readonly number: number;
  /** Milliseconds since 1970, with fractions. */
  readonly atMs: number;
  readonly sender: Sender;
  readonly bytes: Uint8Array;
  /** It is the first one of its link. */
  readonly beginsLink: boolean;
  /** Of an answer: since its request. */
  readonly answerMs?: number;
}

const MOST_PACKETS = 10_000;
const MOST_OPEN = 64;

interface OpenRequest {
  readonly command: number;
  readonly flags: number;
  readonly sensor: number;
  readonly atMs: number;
}

/** What crosses the link, the latest ten thousand packets, each with the time that its answer took. */
export class PacketLog {
  /** Tells of each packet. */
  readonly packets = new State<LoggedPacket[]>([]);
  #open: OpenRequest[] = [];
  #count = 0;
  #beginsLink = false;

  linkBegins(): void {
    this.#beginsLink = true;
    this.#open = [];
  }

  add(sender: Sender, bytes: Uint8Array, atMs = performance.timeOrigin + performance.now()): void {
    const described = describe(sender, bytes, atMs);
    const answerMs = sender === 'watch' ? this.#answerTime(described, bytes, atMs) : undefined;
    if (sender === 'phone') {
      this.#expectAnswer(described, bytes, atMs);
    }
    this.#count += 1;
    const { value } = this.packets;
    value.push({
      ...described,
      number: this.#count,
      atMs,
      sender,
      bytes: bytes.slice(),
      beginsLink: this.#beginsLink,
      ...(answerMs === undefined ? {} : { answerMs }),
    });
    this.#beginsLink = false;
    if (value.length > MOST_PACKETS) {
      value.splice(0, MOST_PACKETS / 10);
    }
    this.packets.tell();
  }

  clear(): void {
    this.packets.value.length = 0;
    this.packets.tell();
  }

  #expectAnswer({ wrong }: Described, bytes: Uint8Array, atMs: number): void {
    if (wrong === undefined) {
      const [first = 0, , , sensor = 0] = bytes;
      const command = first & 15;
      this.#open.push({
        command,
        flags: (first >> 4) & 3,
        sensor: command === 1 ? 0 : sensor,
        atMs,
      });
      this.#open.splice(0, this.#open.length - MOST_OPEN);
    }
  }

  /** Steps and worn state answer whichever request of theirs waits, all else the newest one with its flags. */
  #answerTime({ kind }: Described, bytes: Uint8Array, atMs: number): number | undefined {
    if (kind === 'malformed' || kind === 'entry') {
      return undefined;
    }
    const [first = 0, , , fourth = 0] = bytes;
    const command = first & 15;
    const sensor = command === 1 ? 0 : fourth;
    const isLoose = kind === 'reading' && (sensor === 2 || sensor === 4);
    const index = this.#open.findLastIndex(
      (request) =>
        request.sensor === sensor &&
        (isLoose || (request.command === command && request.flags === ((first >> 4) & 3))),
    );
    const found = this.#open[index];
    if (!found) {
      return undefined;
    }
    this.#open.splice(index, 1);
    return atMs - found.atMs;
  }
}

/** What is stored as JSON: one object for each packet. */
export function toJson(packets: readonly LoggedPacket[]): string {
  const list = packets.map(({ atMs, sender, bytes, kind, fields, wrong, answerMs }) => ({
    time: new Date(atMs).toISOString(),
    from: sender,
    bytes: hex(bytes),
    kind,
    fields,
    ...(wrong === undefined ? {} : { wrong }),
    ...(answerMs === undefined ? {} : { answer_ms: Math.round(1000 * answerMs) / 1000 }),
  }));
  return `${JSON.stringify(list, null, 2)}\n`;
}

/** One line for each packet, for the clipboard. */
export function toText(packets: readonly LoggedPacket[]): string {
  return packets
    .map(({ atMs, sender, bytes, kind, fields, wrong }) =>
      [
        new Date(atMs).toISOString(),
        sender === 'phone' ? '>' : '<',
        hex(bytes),
        kind,
        [fields, wrong].filter(Boolean).join('; '),
      ].join('\t'),
    )
    .join('\n');
}
