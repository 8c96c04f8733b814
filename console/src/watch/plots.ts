import type { App, WatchSide } from '../app.js';
import { h } from '../dom.js';
import type { Part } from '../phone/view.js';
import { LivePlot, type PlotLine } from '../plot/live-plot.js';
import type { ItemReadings } from '../store/item-readings.js';
import { sensorActivityText } from '../texts.js';
import { Cadence, CADENCE } from './cadence.js';

const REFRESH_MS = 250;

/** A plot with its heading. */
export interface Plotted {
  readonly title: string;
  readonly plot: LivePlot;
}

/** Every sensor at full rate. */
export class Plots implements Part {
  readonly element: HTMLElement;
  readonly plots: readonly Plotted[];
  readonly #watch: WatchSide;
  readonly #cadence: Cadence;
  #end: (() => void) | undefined;

  constructor(app: App, watch: WatchSide) {
    this.#watch = watch;
    const { observed } = watch;
    this.#cadence = new Cadence(observed);
    const make = (
      title: string,
      readings: ItemReadings,
      line: PlotLine,
      range?: readonly [number, number],
    ): Plotted => ({
      title,
      plot: new LivePlot({
        title,
        readings,
        lines: [line],
        window: app.window,
        sync: 'watch',
        height: line.color === '--heart' ? 190 : 140,
        ...(range ? { range } : {}),
      }),
    });
    const pedometer = observed.of('pedometer');
    this.plots = [
      make(
        'Heart rate',
        observed.of('heart_rate'),
        {
          name: 'hrm/heart_rate',
          label: 'heart rate',
          unit: 'bpm',
          color: '--heart',
          isGap: (value) => value <= 0,
        },
        [60, 100],
      ),
      make(
        'Cadence',
        this.#cadence.readings,
        { name: CADENCE, label: 'over 10 s', unit: 'steps/min', color: '--walking' },
        [0, 120],
      ),
      make('Steps', pedometer, {
        name: 'pedometer/total_steps',
        label: 'counter',
        unit: 'steps',
        color: '--steps',
        isStepped: true,
      }),
      make(
        'Speed',
        pedometer,
        { name: 'pedometer/speed', label: 'speed', unit: 'km/h', color: '--speed', digits: 1 },
        [0, 8],
      ),
      make(
        'Activity',
        observed.of('activity'),
        {
          name: 'activity/status',
          label: 'activity',
          unit: '',
          color: '--running',
          isStepped: true,
          text: sensorActivityText,
        },
        [0, 3],
      ),
    ];
    this.element = h(
      'div',
      { class: 'plots' },
      ...this.plots.map(({ title, plot }) =>
        h('section', { class: 'card' }, h('h2', {}, title), plot.element),
      ),
    );
  }

  shown(): void {
    const update = () => {
      this.plots.forEach(({ plot }) => {
        plot.update();
      });
    };
    const timer = setInterval(update, REFRESH_MS); // time goes on without readings, too
    const unlisten = this.#watch.observed.readings.listen(update);
    this.#end = () => {
      clearInterval(timer);
      unlisten();
    };
  }

  hidden(): void {
    this.#end?.();
    this.#end = undefined;
  }

  close(): void {
    this.hidden();
    this.#cadence.close();
    this.plots.forEach(({ plot }) => {
      plot.close();
    });
  }
}
