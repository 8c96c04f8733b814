import { CONTROL_PROTOCOL } from './control-stream.js';
import type { Reply } from './messages.js';

const IDLE_MS = 5000;
const TIMEOUT_MS = 10_000;

interface Waiting {
  resolve(reply: Reply): void;
  reject(error: Error): void;
}

/** A request that the service has refused, with its code. */
export class Refusal extends Error {
  override readonly name = 'Refusal';

  constructor(
    readonly code: string,
    message: string,
  ) {
    super(message);
  }
}

/** Single requests to the control socket, over a connection that is there while there are some. */
export class ControlRequests {
  readonly #url: string;
  #socket: WebSocket | undefined;
  #waiting: Waiting[] = [];
  #idle: ReturnType<typeof setTimeout> | undefined;

  constructor(url: string) {
    this.#url = url;
  }

  /**
   * Sends one request, such as `{ request: 'set', item: 'heart_rate', value: 72 }`.
   *
   * @throws {@link Refusal}, or Error when there is no connection or no answer, as a rejection
   */
  async ask<Answer extends Reply = Reply>(request: object): Promise<Answer> {
    const reply = await new Promise<Reply>((resolve, reject) => {
      const socket = this.#connected();
      this.#waiting.push({ resolve, reject });
      const text = JSON.stringify(request);
      if (socket.readyState === WebSocket.OPEN) {
        socket.send(text);
      } else {
        socket.addEventListener('open', () => {
          socket.send(text);
        });
      }
      this.#endLater(TIMEOUT_MS);
    });
    if (!reply.ok) {
      const { code = 'failed', message = 'it was refused' } = reply.error ?? {};
      throw new Refusal(code, message);
    }
    return reply as Answer;
  }

  close(): void {
    this.#end('the page has left the watch');
  }

  #connected(): WebSocket {
    if (this.#socket) {
      return this.#socket;
    }
    const socket = new WebSocket(this.#url, CONTROL_PROTOCOL);
    this.#socket = socket;
    socket.addEventListener('message', ({ data }) => {
      if (socket === this.#socket && typeof data === 'string') {
        this.#waiting.shift()?.resolve(JSON.parse(data) as Reply);
        this.#endLater(this.#waiting.length === 0 ? IDLE_MS : TIMEOUT_MS);
      }
    });
    socket.addEventListener('close', () => {
      if (socket === this.#socket) {
        this.#end('the connection to the watch was lost');
      }
    });
    return socket;
  }

  #endLater(delayMs: number): void {
    clearTimeout(this.#idle);
    this.#idle = setTimeout(() => {
      this.#end('the watch does not answer');
    }, delayMs);
  }

  #end(why: string): void {
    clearTimeout(this.#idle);
    const socket = this.#socket;
    this.#socket = undefined;
    socket?.close();
    const waiting = this.#waiting;
    this.#waiting = [];
    for (const one of waiting) {
      one.reject(new Error(why));
    }
  }
}
