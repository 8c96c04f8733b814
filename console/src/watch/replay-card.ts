import type { App, WatchSide } from '../app.js';
import type { Replay } from '../control/messages.js';
import { h, setText } from '../dom.js';
import type { Part } from '../phone/view.js';
import { errorText } from '../texts.js';
import { lengthText } from './lengths.js';

const REFRESH_MS = 250;

/** The moment that plays now, some time after the service has told how. */
export function positionAfter(replay: Replay, passedMs: number): number {
  const position = replay.position_ms + (replay.paused ? 0 : replay.speed * passedMs);
  return replay.loop ? position % replay.length_ms : Math.min(position, replay.length_ms);
}

/** The recording that plays, as a time line. */
export class ReplayCard implements Part {
  readonly element: HTMLElement;
  readonly #app: App;
  readonly #watch: WatchSide;
  readonly #why = h('p', { class: 'soft' });
  readonly #controls: HTMLFieldSetElement;
  readonly #line = h('input', { id: 'replay-line', type: 'range', min: 0, step: 'any' });
  readonly #position = h('output', { id: 'replay-position', for: 'replay-line' });
  readonly #pause = h('button', { id: 'replay-pause', type: 'button', class: 'main' });
  readonly #speed = h('input', {
    id: 'replay-speed',
    type: 'number',
    min: 0.1,
    max: 1000,
    step: 'any',
  });
  readonly #recording = h('select', { id: 'replay-recording' });
  readonly #unlisten: () => void;
  #timer: ReturnType<typeof setInterval> | undefined;
  #replay: Replay | null | undefined;
  #toldAt = 0;
  #isDragged = false;

  constructor(app: App, watch: WatchSide) {
    this.#app = app;
    this.#watch = watch;
    this.#controls = h(
      'fieldset',
      { class: 'plain', disabled: !watch.maySteer },
      h('legend', { class: 'hidden' }, 'How it plays'),
      h(
        'div',
        { class: 'row' },
        this.#pause,
        h('label', { for: 'replay-line', class: 'hidden' }, 'Moment of the recording'),
        this.#line,
        this.#position,
      ),
      h(
        'div',
        { class: 'row' },
        h('label', { for: 'replay-recording' }, 'Recording'),
        this.#recording,
        h('label', { for: 'replay-speed' }, 'Speed, times as recorded'),
        this.#speed,
      ),
    );
    this.element = h(
      'section',
      { class: 'card wide', id: 'replay' },
      h('h2', {}, 'The recording that plays'),
      this.#why,
      this.#controls,
    );
    this.#addHands();
    this.#unlisten = watch.observed.status.listen((status) => {
      if (status?.replay !== this.#replay) {
        this.#replay = status?.replay;
        this.#toldAt = performance.now();
        void this.#listRecordings();
      }
      this.#show();
    });
  }

  shown(): void {
    this.#timer = setInterval(() => {
      this.#showPosition();
    }, REFRESH_MS);
  }

  hidden(): void {
    clearInterval(this.#timer);
  }

  close(): void {
    this.hidden();
    this.#unlisten();
  }

  #addHands(): void {
    this.#pause.addEventListener('click', () => {
      void this.#steer({ action: this.#replay?.paused === true ? 'resume' : 'pause' });
    });
    this.#line.addEventListener('input', () => {
      this.#isDragged = true;
      this.#showPosition();
    });
    this.#line.addEventListener('change', () => {
      this.#isDragged = false;
      void this.#steer({ action: 'seek', position_ms: Number(this.#line.value) });
    });
    this.#speed.addEventListener('change', () => {
      void this.#steer({ action: 'speed', speed: Number(this.#speed.value) });
    });
    this.#recording.addEventListener('change', () => {
      void this.#steer({ action: 'open', recording: this.#recording.value });
    });
  }

  async #steer(what: object): Promise<void> {
    try {
      await this.#watch.requests.ask({ request: 'replay', ...what });
    } catch (error) {
      this.#app.say(`Not done: ${errorText(error)}`, true);
      this.#show();
    }
  }

  async #listRecordings(): Promise<void> {
    const playing = this.#replay?.files ?? [];
    let known: readonly string[] = playing;
    if (this.#replay) {
      try {
        known = (await this.#watch.requests.ask({ request: 'replay' })).recordings ?? playing;
      } catch {
        // The one that plays is what there is to choose from, then.
      }
    }
    const first = playing.length === 1 ? playing[0] : undefined;
    const several = first === undefined ? [h('option', { value: '' }, 'several in turn')] : [];
    this.#recording.replaceChildren(
      ...several,
      ...known.map((path) =>
        h('option', { value: path, selected: path === first, title: path }, nameOf(path)),
      ),
    );
  }

  #show(): void {
    const replay = this.#replay;
    this.#controls.hidden = !replay;
    this.#why.hidden = replay !== undefined && replay !== null && this.#watch.maySteer;
    setText(
      this.#why,
      replay
        ? 'The token of this page may look, and change nothing.'
        : 'No sensor of this watch plays a recording. That takes heart_rate=replay (and pedometer, activity, gesture) in ' +
            'section [sensors], and files=… in section [replay] of platform.conf; or PARVANE_TRACE.',
    );
    if (!replay) {
      return;
    }
    setText(this.#pause, replay.paused ? 'Go on' : 'Pause');
    this.#line.max = String(replay.length_ms);
    if (document.activeElement !== this.#speed) {
      this.#speed.value = String(replay.speed);
    }
    this.#showPosition();
  }

  #showPosition(): void {
    const replay = this.#replay;
    if (!replay) {
      return;
    }
    const isLive = this.#watch.observed.connection.value === 'live';
    if (!this.#isDragged && isLive) {
      this.#line.value = String(positionAfter(replay, performance.now() - this.#toldAt));
    }
    const text = `${lengthText(Number(this.#line.value))} of ${lengthText(replay.length_ms)}`;
    setText(this.#position, text);
    this.#line.setAttribute('aria-valuetext', text);
  }
}

function nameOf(path: string): string {
  return path.slice(path.lastIndexOf('/') + 1);
}
