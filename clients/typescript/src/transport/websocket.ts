/**
 * The road over the network, to a gateway: one binary message is one packet.
 *
 * @module
 */
import type { Link, LinkEvents, Transport } from './transport.js';

/** The subprotocol of the link. */
export const LINK_PROTOCOL = 'parvane.link.v1';

/** What is used of a WebSocket: those of browsers, of Node 22 and of the package `ws` have it. */
export interface WebSocketLike {
  binaryType: string;
  readonly protocol: string;
  addEventListener(type: 'open', listener: () => void): void;
  addEventListener(type: 'message', listener: (event: { data: unknown }) => void): void;
  addEventListener(
    type: 'close',
    listener: (event: { code: number; reason: string }) => void,
  ): void;
  addEventListener(type: 'error', listener: (event: object) => void): void;
  send(data: Uint8Array): void;
  close(code?: number, reason?: string): void;
}

/** How a {@link WebSocketTransport} connects. */
export interface WebSocketOptions {
  /**
   * Makes the socket; where the token goes along in a header, and where this runtime has no WebSocket
   * of its own: `(url, protocol) => new WebSocket(url, protocol, { headers: ... })` with that of `ws`.
   * `new WebSocket(url, protocol)` unless given.
   */
  readonly create?: (url: string, protocol: string) => WebSocketLike;
  /** How long connecting may take, in milliseconds: 5 s. */
  readonly connectTimeoutMs?: number;
}

/** Links to the watch through a gateway, such as "wss://watch.local:8467/link". */
export class WebSocketTransport implements Transport {
  readonly #url: string;
  readonly #create: (url: string, protocol: string) => WebSocketLike;
  readonly #connectTimeoutMs: number;

  constructor(url: string, options: WebSocketOptions = {}) {
    this.#url = url;
    this.#create = options.create ?? createDefault;
    this.#connectTimeoutMs = options.connectTimeoutMs ?? 5000;
  }

  open(events: LinkEvents): Link {
    const socket = this.#create(this.#url, LINK_PROTOCOL);
    return new WebSocketLink(socket, events, this.#connectTimeoutMs);
  }
}

/**
 * Exchanges a token for a cookie that lets this browser in, since a browser cannot send the token with a
 * WebSocket. The cookie lasts for hours, and the page cannot read it.
 *
 * @param gateway - its address, such as "https://watch.local:8467"; the page's own in a browser
 * @throws Error when the token is not accepted; TypeError when nobody answers
 */
export async function signIn(gateway: string, token: string): Promise<void> {
  const response = await fetch(new URL('/session', gateway), {
    method: 'POST',
    headers: { Authorization: `Bearer ${token}` },
    credentials: 'include',
  });
  if (!response.ok) {
    throw new Error(`the gateway does not accept the token: ${response.status}`);
  }
}

class WebSocketLink implements Link {
  readonly #socket: WebSocketLike;
  readonly #events: LinkEvents;
  readonly #timer: ReturnType<typeof setTimeout>;
  #isOver = false;
  #error = '';

  constructor(socket: WebSocketLike, events: LinkEvents, connectTimeoutMs: number) {
    this.#socket = socket;
    this.#events = events;
    socket.binaryType = 'arraybuffer';
    this.#timer = setTimeout(() => {
      this.#end(`no connection within ${connectTimeoutMs / 1000} s`);
    }, connectTimeoutMs);
    socket.addEventListener('open', () => {
      this.#onOpen();
    });
    socket.addEventListener('message', ({ data }) => {
      this.#onMessage(data);
    });
    socket.addEventListener('error', (event) => {
      this.#error = 'message' in event ? String(event.message) : '';
    });
    socket.addEventListener('close', ({ code, reason }) => {
      this.#end(closeText(code, reason, this.#error));
    });
  }

  send(packet: Uint8Array): void {
    this.#socket.send(packet);
  }

  close(): void {
    clearTimeout(this.#timer);
    this.#isOver = true;
    this.#socket.close(1000);
  }

  #onOpen(): void {
    clearTimeout(this.#timer);
    if (this.#isOver) {
      return;
    }
    if (this.#socket.protocol === LINK_PROTOCOL) {
      this.#events.opened();
    } else {
      this.#end(`whoever answers there does not speak ${LINK_PROTOCOL}`);
    }
  }

  #onMessage(data: unknown): void {
    if (this.#isOver) {
      return;
    }
    if (data instanceof ArrayBuffer) {
      this.#events.packet(new Uint8Array(data));
    } else {
      this.#end('a message that is no packet has come');
    }
  }

  #end(why: string): void {
    if (this.#isOver) {
      return;
    }
    this.close();
    this.#events.closed(why);
  }
}

/** Why a link ended, from what the gateway or this runtime says of it. */
function closeText(code: number, reason: string, error: string): string {
  switch (code) {
    case 1001:
      return 'the gateway has ended';
    case 4401:
      return 'the token has ended';
    case 4409:
      return 'another phone is connected';
    case 4503:
      return "the watch's service is down";
    case 1006:
      return error === '' ? 'the connection could not be made, or broke' : error;
    default:
      return `the gateway has closed the link: ${reason === '' ? code : reason}`;
  }
}

function createDefault(url: string, protocol: string): WebSocketLike {
  if (typeof WebSocket === 'undefined') {
    throw new Error('this runtime has no WebSocket: give the option "create"');
  }
  return new WebSocket(url, protocol);
}
