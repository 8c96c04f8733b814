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
    const on = this.isWanted.value ? itemsWithSource(status) : [];
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
            this.problem.set(ok ? '' : (error?.message ?? ''));
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
