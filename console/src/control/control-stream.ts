import type { Reply } from './messages.js';

/** Why a connection to the control socket has ended, by its close code. */
export const CloseCode = {
  GatewayEnds: 1001,
  Broken: 1006,
  TokenEnded: 4401,
  WatchAway: 4503,
} as const;

export const CONTROL_PROTOCOL = 'parvane.control.v1';

export interface StreamEvents {
  /** The first reply, with `ok` or not. */
  begun(reply: Reply): void;
  message(message: object): void;
  /** It has ended, or could not be made, and is made anew after a pause. */
  ended(code: number): void;
}

const FIRST_PAUSE_MS = 100;
const LONGEST_PAUSE_MS = 2000;
const PING_MS = 1000;
/** An answer takes no longer than this, or whoever should answer is gone. */
export const PONG_MS = 900;

/**
 * A connection to the control socket that begins with one request and is a stream from then on. It is made
 * anew when it is lost, until {@link close}.
 */
export class ControlStream {
  readonly #url: string;
  readonly #request: object;
  readonly #events: StreamEvents;
  readonly #onSilence: ((isSilent: boolean) => void) | undefined;
  #socket: WebSocket | undefined;
  #hasBegun = false;
  #isClosed = false;
  #pauseMs = FIRST_PAUSE_MS;
  #timer: ReturnType<typeof setTimeout> | undefined;
  #pingTimer: ReturnType<typeof setTimeout> | undefined;
  #isSilent = false;

  /**
   * @param onSilence - whether the gateway leaves a question unanswered; asked for each second while the page is
   * visible, and not at all without
   */
  constructor(
    url: string,
    request: object,
    events: StreamEvents,
    onSilence?: (isSilent: boolean) => void,
  ) {
    this.#url = url;
    this.#request = request;
    this.#events = events;
    this.#onSilence = onSilence;
    this.#open();
  }

  close(): void {
    this.#isClosed = true;
    clearTimeout(this.#timer);
    this.#drop();
  }

  /** Makes the connection anew at once. */
  restart(): void {
    if (!this.#isClosed) {
      clearTimeout(this.#timer);
      this.#drop();
      this.#open();
    }
  }

  #open(): void {
    const socket = new WebSocket(this.#url, CONTROL_PROTOCOL);
    this.#socket = socket;
    this.#hasBegun = false;
    socket.addEventListener('open', () => {
      socket.send(JSON.stringify(this.#request));
    });
    socket.addEventListener('message', ({ data }) => {
      if (socket === this.#socket && typeof data === 'string') {
        this.#take(JSON.parse(data) as object);
      }
    });
    socket.addEventListener('close', ({ code }) => {
      if (socket === this.#socket) {
        this.#lose(code);
      }
    });
    if (this.#onSilence) {
      this.#awaitAnswer(5000);
    }
  }

  #take(message: object): void {
    if (!this.#hasBegun) {
      this.#hasBegun = true;
      this.#pauseMs = FIRST_PAUSE_MS;
      this.#heard();
      this.#events.begun(message as Reply);
    } else if ('pong' in message) {
      this.#heard();
    } else {
      this.#events.message(message);
    }
  }

  #heard(): void {
    if (!this.#onSilence) {
      return;
    }
    this.#setSilent(false);
    clearTimeout(this.#pingTimer);
    this.#pingTimer = setTimeout(() => {
      this.#ping();
    }, PING_MS);
  }

  #ping(): void {
    if (document.hidden) {
      this.#heard(); // a second later again: timers of a hidden page are slow, and nobody looks
      return;
    }
    this.#socket?.send('{"request":"ping"}');
    this.#awaitAnswer(PONG_MS);
  }

  /** First says that there is none, and ends the connection if that lasts. */
  #awaitAnswer(patienceMs: number): void {
    clearTimeout(this.#pingTimer);
    this.#pingTimer = setTimeout(() => {
      this.#setSilent(true);
      this.#pingTimer = setTimeout(() => {
        this.#drop();
        this.#lose(CloseCode.Broken);
      }, 5 * PONG_MS);
    }, patienceMs);
  }

  #setSilent(isSilent: boolean): void {
    if (isSilent !== this.#isSilent) {
      this.#isSilent = isSilent;
      this.#onSilence?.(isSilent);
    }
  }

  #drop(): void {
    clearTimeout(this.#pingTimer);
    const socket = this.#socket;
    this.#socket = undefined;
    socket?.close();
  }

  #lose(code: number): void {
    clearTimeout(this.#pingTimer);
    this.#socket = undefined;
    this.#timer = setTimeout(() => {
      this.#open();
    }, this.#pauseMs);
    this.#pauseMs = Math.min(2 * this.#pauseMs, LONGEST_PAUSE_MS);
    this.#events.ended(code);
  }
}
