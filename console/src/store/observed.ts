import { ControlStream } from '../control/control-stream.js';
import type { Item, ItemName, ObservedEvent, Reply, Status, Values } from '../control/messages.js';
import { State } from '../state.js';
import { ItemReadings } from './item-readings.js';

export const ITEM_NAMES: readonly ItemName[] = ['heart_rate', 'pedometer', 'activity', 'gesture'];

/** How the page is connected to the watch's service. */
export type Connection =
  | 'connecting'
  | 'live'
  /** A question has been left unanswered. */
  | 'silent'
  | 'gateway-away'
  | 'watch-away'
  | 'busy'
  | 'token-ended';

export interface LatestReading {
  /** Seconds since 1970, by the watch's clock. */
  readonly time: number;
  readonly values: Values;
}

/**
 * What the running service tells an observer: its status as it is now, and the readings of the last hour. Keeps
 * itself connected.
 */
export class Observed {
  readonly connection = new State<Connection>('connecting');
  /** What the service is at, but for its readings; undefined before the first. Stays when the connection is lost. */
  readonly status = new State<Status | undefined>(undefined);
  /** Of each item; tells of each reading. */
  readonly readings = new State<ReadonlyMap<ItemName, ItemReadings>>(
    new Map(ITEM_NAMES.map((name) => [name, new ItemReadings()])),
  );
  readonly #latest = new Map<ItemName, LatestReading>();
  readonly #stream: ControlStream;
  #clockOffset = 0;

  constructor(url: string) {
    const events = {
      begun: (reply: Reply) => {
        this.#begin(reply);
      },
      message: (message: object) => {
        this.take(message as ObservedEvent);
      },
      ended: (code: number) => {
        this.connection.set(connectionAfter(code));
      },
    };
    this.#stream = new ControlStream(url, { request: 'observe' }, events, (isSilent) => {
      if (isSilent) {
        this.connection.set('silent');
      } else if (this.connection.value === 'silent') {
        this.connection.set('live');
      }
    });
  }

  close(): void {
    this.#stream.close();
  }

  latest(item: ItemName): LatestReading | undefined {
    return this.#latest.get(item);
  }

  of(item: ItemName): ItemReadings {
    const found = this.readings.value.get(item);
    if (!found) {
      throw new Error(`there is no item ${item}`);
    }
    return found;
  }

  /** Now, by the watch's clock, in seconds since 1970. */
  now(): number {
    return Date.now() / 1000 + this.#clockOffset;
  }

  /** One message of the stream. */
  take(message: ObservedEvent): void {
    if (!('event' in message)) {
      return; // the service ends; the end of the connection follows
    }
    if (message.event === 'reading') {
      this.#read(message.item, message.time, message.values);
      return;
    }
    const { value } = this.status;
    if (message.event === 'missed') {
      this.#stream.restart(); // the status is to be asked for anew
    } else if (value && message.event === 'item') {
      const items = value.items.map((one) =>
        one.number === message.item.number ? message.item : one,
      );
      this.status.set({ ...value, items });
    } else if (value) {
      this.status.set({ ...value, ...message });
    }
  }

  #begin({ ok, error, status }: Reply): void {
    if (!ok || !status) {
      this.connection.set(error?.code === 'busy' ? 'busy' : 'watch-away');
      return;
    }
    this.#clockOffset = Date.parse(status.time) / 1000 - Date.now() / 1000;
    for (const { item, last_reading } of status.items) {
      this.#takeLast(item, last_reading);
    }
    this.status.set(status);
    this.connection.set('live');
  }

  #takeLast(item: ItemName, last: Item['last_reading']): void {
    if (last && !this.#latest.has(item)) {
      this.#latest.set(item, { time: Date.parse(last.time) / 1000, values: last.values });
    }
  }

  #read(item: ItemName, time: string, values: Values): void {
    const seconds = Date.parse(time) / 1000;
    // Whatever has come with the least delay tells the most of the watch's clock.
    this.#clockOffset = Math.max(this.#clockOffset, seconds - Date.now() / 1000);
    this.#latest.set(item, { time: seconds, values });
    this.readings.value.get(item)?.add(seconds, values);
    this.readings.tell();
  }
}

function connectionAfter(code: number): Connection {
  switch (code) {
    case 4401:
      return 'token-ended';
    case 4503:
      return 'watch-away';
    default:
      return 'gateway-away';
  }
}
