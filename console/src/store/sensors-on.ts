import { ControlStream } from '../control/control-stream.js';
import type { ItemName, Status } from '../control/messages.js';
import { State } from '../state.js';

/**
 * Has the watch's sensors on while this page is open, as a recording does: without it a sensor speaks only while
 * a phone wants it.
 */
export class SensorsOn {
  /** What the person wants. */
  readonly isWanted = new State(true);
  /** Why it is not so; empty when it is, or is not wanted. */
  readonly problem = new State('');
  readonly #url: string;
  #stream: ControlStream | undefined;
  #items = '';
  /** What the service has refused to turn on: a recording has not every sensor. Until another one plays. */
  readonly #refused = new Set<ItemName>();
  #playing = '';

  constructor(url: string, status: State<Status | undefined>) {
    this.#url = url;
    this.isWanted.listen(() => {
      this.#turn(status.value);
    });
    status.listen((value) => {
      this.#turn(value);
    });
  }

  close(): void {
    this.#stream?.close();
    this.#stream = undefined;
  }

  #turn(status: Status | undefined): void {
    const playing = `${status?.service.pid} ${status?.replay?.files?.join()}`;
    if (playing !== this.#playing) {
      this.#playing = playing;
      this.#refused.clear();
    }
    const on = (this.isWanted.value ? itemsWithSource(status) : []).filter(
      (item) => !this.#refused.has(item),
    );
    if (on.join() === this.#items && (this.#stream !== undefined || on.length === 0)) {
      return;
    }
    this.#items = on.join();
    this.close();
    this.problem.set('');
    if (on.length > 0) {
      this.#stream = new ControlStream(
        this.#url,
        { request: 'record', on },
        {
          begun: ({ ok, error }) => {
            const refused = on.find((item) => error?.message.startsWith(`${item} cannot`) === true);
            this.problem.set(ok || refused ? '' : (error?.message ?? ''));
            if (refused) {
              this.#refused.add(refused);
              this.#turn(status);
            }
          },
          message: () => undefined,
          ended: () => undefined,
        },
      );
    }
  }
}

function itemsWithSource(status: Status | undefined): ItemName[] {
  return status?.items.filter(({ problem }) => problem === null).map(({ item }) => item) ?? [];
}
