import type { App, WatchSide } from '../app.js';
import { h, saveFile } from '../dom.js';
import type { Part } from '../phone/view.js';
import type { Plotted } from './plots.js';
import { toPicture } from './picture.js';
import { toRecording } from './recording.js';

const STRETCHES: readonly (readonly [number, string])[] = [
  [10, '10 s'],
  [60, '1 min'],
  [600, '10 min'],
  [3600, '1 h'],
];

/** Which stretch of time the plots show, and what is stored of it. */
export class Toolbar implements Part {
  readonly element: HTMLElement;
  readonly #end: () => void;

  constructor(app: App, watch: WatchSide, plots: readonly Plotted[]) {
    const stretches = STRETCHES.map(([seconds, text]) =>
      h(
        'button',
        {
          id: `stretch-${seconds}`,
          'aria-pressed': 'false',
          onclick: () => {
            app.window.goLive(seconds);
          },
        },
        text,
      ),
    );
    const live = h(
      'button',
      {
        id: 'live',
        onclick: () => {
          app.window.goLive();
        },
      },
      'Go live',
    );
    this.element = h(
      'div',
      { class: 'toolbar' },
      h(
        'div',
        { class: 'row', role: 'group', 'aria-label': 'Stretch of time' },
        h('span', { class: 'soft' }, 'The last'),
        ...stretches,
        live,
      ),
      h(
        'div',
        { class: 'row', role: 'group', 'aria-label': 'Save what the plots show' },
        h(
          'button',
          {
            id: 'save-recording',
            onclick: () => {
              saveRecording(app, watch);
            },
          },
          'Save recording',
        ),
        h(
          'button',
          { id: 'save-picture', onclick: () => void savePicture(app, plots) },
          'Save PNG',
        ),
      ),
      h(
        'p',
        { class: 'soft small' },
        'Drag a plot, or use the arrow keys on it, to look back; + and −, two fingers, or the wheel with Ctrl zoom; ' +
          'a double click or Home goes back.',
      ),
    );
    this.#end = app.window.span.listen((span) => {
      live.disabled = span.kind === 'live';
      STRETCHES.forEach(([seconds], index) => {
        const isShown = span.kind === 'live' && span.seconds === seconds;
        stretches[index]?.setAttribute('aria-pressed', String(isShown));
      });
    });
  }

  close(): void {
    this.#end();
  }
}

function saveRecording(app: App, { observed }: WatchSide): void {
  const { from, to } = app.window;
  const { text, rows, leftOut } = toRecording((item) => observed.of(item), from, to);
  if (rows === 0) {
    app.say('Nothing is saved: no sensor has reported anything in what the plots show.', true);
    return;
  }
  saveFile('recording.csv', new Blob([text], { type: 'text/csv' }));
  const lacks = leftOut > 0 ? `, without ${leftOut} that a recording cannot hold` : '';
  app.say(`${rows} readings are saved as recording.csv${lacks}. The service replays such a file.`);
}

async function savePicture(app: App, plots: readonly Plotted[]): Promise<void> {
  const picture = await toPicture(plots, app.window.from, app.window.to);
  if (picture) {
    saveFile('plots.png', picture);
    app.say('The plots are saved as plots.png.');
  } else {
    app.say('Nothing is saved: this browser makes no picture of the plots.', true);
  }
}
