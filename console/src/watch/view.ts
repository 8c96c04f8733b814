import type { View, ViewKind } from '../app.js';
import { h } from '../dom.js';
import { LivePlot, type PlotLine } from '../plot/live-plot.js';
import { sensorActivityText } from '../texts.js';
import type { ItemName } from '../control/messages.js';

const PLOTS: readonly {
  readonly title: string;
  readonly item: ItemName;
  readonly lines: readonly PlotLine[];
}[] = [
  {
    title: 'Heart rate',
    item: 'heart_rate',
    lines: [
      {
        name: 'hrm/heart_rate',
        label: 'heart rate',
        unit: 'bpm',
        color: '--heart',
        isGap: (value) => value <= 0,
      },
    ],
  },
  {
    title: 'Speed',
    item: 'pedometer',
    lines: [{ name: 'pedometer/speed', label: 'speed', unit: 'km/h', color: '--speed', digits: 1 }],
  },
  {
    title: 'Activity',
    item: 'activity',
    lines: [
      {
        name: 'activity/status',
        label: 'activity',
        unit: '',
        color: '--steps',
        isStepped: true,
        text: sensorActivityText,
      },
    ],
  },
];

/** What the service does: its sensors at full rate. */
export const watchView: ViewKind = {
  id: 'watch',
  title: 'Watch’s view',
  about: 'What the service on the watch senses and does, at full rate.',
  lacks: (app) =>
    app.watch
      ? undefined
      : 'The token of this page is for a phone alone. One of the scope console shows this, too.',
  create(app): View {
    const { watch } = app;
    if (!watch) {
      throw new Error('the watch cannot be seen with this token');
    }
    const { observed } = watch;
    const plots = PLOTS.map(({ title, item, lines }) => ({
      title,
      plot: new LivePlot({
        title,
        readings: observed.of(item),
        lines,
        window: app.window,
        sync: 'watch',
      }),
    }));
    const update = () => {
      plots.forEach(({ plot }) => {
        plot.update();
      });
    };
    const element = h(
      'div',
      { class: 'grid' },
      ...plots.map(({ title, plot }) =>
        h('section', { class: 'card wide' }, h('h2', {}, title), plot.element),
      ),
    );
    let ends: (() => void)[] = [];
    return {
      element,
      shown() {
        const timer = setInterval(update, 250);
        ends = [
          observed.readings.listen(update),
          () => {
            clearInterval(timer);
          },
        ];
      },
      hidden() {
        ends.forEach((end) => {
          end();
        });
      },
      close() {
        plots.forEach(({ plot }) => {
          plot.close();
        });
      },
    };
  },
};
