import {
  LINK_PROTOCOL,
  Sensor,
  StepLedger,
  systemZone,
  Watch,
  WebSocketTransport,
  type Link,
  type LinkEvents,
  type SensorList,
  type SessionEvent,
  type Transport,
} from '@parvane/client';

import { State } from '../state.js';
import { PacketLog } from './packet-log.js';

/** How this page is linked to the watch as its phone. */
export type PhoneState =
  | { readonly kind: 'off' }
  | { readonly kind: 'connecting' }
  | { readonly kind: 'linked' }
  /** Another phone has the watch, which serves one at a time. */
  | { readonly kind: 'taken' }
  | { readonly kind: 'token-ended' }
  | { readonly kind: 'away'; readonly why: string };

const STEPS_KEY = 'parvane-steps';

/** This page as the phone of the watch: the link, what was asked and told over it, and every packet. */
export class Phone {
  readonly state = new State<PhoneState>({ kind: 'off' });
  readonly sensors = new State<SensorList | undefined>(undefined);
  /** Told of each event of the session. */
  readonly event = new State<SessionEvent | undefined>(undefined);
  readonly log = new PacketLog();
  readonly #transport: TappedTransport;
  #watch: Watch | undefined;

  /** @param url - of the gateway's /link */
  constructor(url: string) {
    this.#transport = new TappedTransport(url, this.log);
  }

  /** Becomes the phone, and asks what an app would: the sensors, the worn state, steps and activity as they change. */
  connect(): void {
    if (this.#watch) {
      return;
    }
    const watch = new Watch(this.#transport, { ledger: restoredLedger() });
    this.#watch = watch;
    this.state.set({ kind: 'connecting' });
    watch.listen((event) => {
      this.#take(event);
    });
    watch.follow(Sensor.Activity);
    watch.follow(Sensor.Pedometer);
  }

  /** Leaves the watch to another phone. */
  disconnect(): void {
    this.#watch?.close();
    this.#watch = undefined;
    this.state.set({ kind: 'off' });
  }

  /** The link is known to be broken, though nothing has said so. */
  drop(why: string): void {
    this.#transport.drop(why);
  }

  get watch(): Watch | undefined {
    return this.#watch;
  }

  /** Sends bytes as they are; false without a link. */
  sendRaw(bytes: Uint8Array): boolean {
    return this.#transport.sendRaw(bytes);
  }

  #take(event: SessionEvent): void {
    switch (event.kind) {
      case 'linked':
        this.state.set({ kind: 'linked' });
        this.#askFirst();
        break;
      case 'lost':
      case 'attempt-failed':
        this.state.set(this.#stateAfter(event.why.text));
        break;
      case 'list':
        this.sensors.set(event.list);
        break;
      case 'reading':
        if (event.steps && this.#watch) {
          localStorage.setItem(STEPS_KEY, this.#watch.steps.save());
        }
        break;
      default:
        break;
    }
    this.event.set(event);
  }

  #askFirst(): void {
    const ignore = () => undefined; // told as an event
    this.#watch?.list().then(ignore, ignore);
    this.#watch?.measure(Sensor.WearState).then(ignore, ignore);
  }

  #stateAfter(why: string): PhoneState {
    switch (this.#transport.closeCode) {
      case 4401:
        return { kind: 'token-ended' };
      case 4409:
        return { kind: 'taken' };
      default:
        return { kind: 'away', why };
    }
  }
}

function restoredLedger(): StepLedger {
  try {
    const stored = localStorage.getItem(STEPS_KEY);
    return stored === null ? new StepLedger(systemZone) : StepLedger.restore(stored, systemZone);
  } catch {
    return new StepLedger(systemZone); // of another version, or damaged: it begins anew
  }
}

/** A road to the watch on which each packet is noted, and onto which packets can be put. */
class TappedTransport implements Transport {
  readonly #inner: WebSocketTransport;
  readonly #log: PacketLog;
  #link: Link | undefined;
  #events: LinkEvents | undefined;
  /** With which the gateway has closed the last link; 0 while there is one. */
  closeCode = 0;

  constructor(url: string, log: PacketLog) {
    this.#log = log;
    const create = (address: string) => {
      const socket = new WebSocket(address, LINK_PROTOCOL);
      socket.addEventListener('close', ({ code }) => {
        this.closeCode = code;
      });
      return socket;
    };
    this.#inner = new WebSocketTransport(url, { create });
  }

  open(events: LinkEvents): Link {
    this.#events = events;
    const end = () => {
      this.#link = undefined;
      this.#events = undefined;
    };
    const link = this.#inner.open({
      opened: () => {
        this.#link = link;
        this.closeCode = 0;
        this.#log.linkBegins();
        events.opened();
      },
      packet: (bytes) => {
        this.#log.add('watch', bytes);
        events.packet(bytes);
      },
      closed: (why) => {
        end();
        events.closed(why);
      },
    });
    return {
      send: (bytes) => {
        this.#log.add('phone', bytes);
        link.send(bytes);
      },
      close: () => {
        end();
        link.close();
      },
    };
  }

  sendRaw(bytes: Uint8Array): boolean {
    if (!this.#link) {
      return false;
    }
    this.#log.add('phone', bytes);
    this.#link.send(bytes);
    return true;
  }

  drop(why: string): void {
    const events = this.#events;
    this.#link?.close();
    this.#link = undefined;
    this.#events = undefined;
    events?.closed(why);
  }
}
