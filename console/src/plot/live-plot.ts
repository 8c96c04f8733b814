import uPlot from 'uplot';

import { h } from '../dom.js';
import type { ItemReadings } from '../store/item-readings.js';
import { thin } from '../store/thin.js';
import { onNextFrame } from './frames.js';
import type { TimeWindow } from './time-window.js';

export interface PlotLine {
  /** Of the value in the readings, such as "hrm/heart_rate". */
  readonly name: string;
  readonly label: string;
  readonly unit: string;
  /** Name of a colour of style.css, such as "--heart". */
  readonly color: string;
  /** It stays as it is until the next reading, as an activity does. */
  readonly isStepped?: boolean;
  /** What is no value, such as the heart rate of a watch that is not worn: a gap. */
  readonly isGap?: (value: number) => boolean;
  /** Digits behind the point; 0 unless given. */
  readonly digits?: number;
  /** In place of a number with its unit. */
  readonly text?: (value: number) => string;
}

export interface PlotOptions {
  /** What it is, for those who cannot see it and for the heading of what is stored. */
  readonly title: string;
  readonly readings: ItemReadings;
  readonly lines: readonly PlotLine[];
  readonly window: TimeWindow;
  /** In CSS pixels; 180 unless given. */
  readonly height?: number;
  /** Without axes, cursor and hands: a small one beside a number. */
  readonly isSmall?: boolean;
  /** The least that the vertical axis shows, so that a flat line is flat. */
  readonly range?: readonly [number, number];
  /** Plots with the same name show their cursors at the same time. */
  readonly sync?: string;
}

const FEW_POINTS = 8; // so few make no line
const PAN_SHARE = 0.1;
const ZOOM_STEP = 1.25;

/**
 * A plot of what one item reports, which moves on with time. Drag or arrow keys pan, the wheel, two fingers, + and -
 * zoom, a double click or Home makes it live again. Its work for a frame does not grow with the readings.
 */
export class LivePlot {
  readonly element: HTMLElement;
  readonly #options: PlotOptions;
  readonly #legend: HTMLElement;
  #plot: uPlot | undefined;
  readonly #resize: ResizeObserver;
  readonly #scheme = matchMedia('(prefers-color-scheme: dark)');
  readonly #ends: (() => void)[] = [];

  constructor(options: PlotOptions) {
    this.#options = options;
    this.#legend = h('p', { class: 'plot-legend' });
    const isSmall = options.isSmall === true;
    this.element = h('div', {
      class: isSmall ? 'plot small' : 'plot',
      role: isSmall ? 'img' : 'group',
      'aria-label': isSmall ? options.title : `${options.title}: arrow keys pan, + and - zoom`,
      tabindex: isSmall ? undefined : 0,
    });
    if (!isSmall) {
      this.element.append(this.#legend);
      this.#addHands();
    }
    this.#resize = new ResizeObserver(() => {
      this.#setSize();
    });
    this.#resize.observe(this.element);
    const rebuild = () => {
      this.#destroy();
      this.update();
    };
    this.#scheme.addEventListener('change', rebuild);
    this.#ends.push(() => {
      this.#scheme.removeEventListener('change', rebuild);
    });
    this.#ends.push(
      options.window.span.listen(() => {
        this.update();
      }),
    );
  }

  /** Draws it with the next frame, if it can be seen. */
  update(): void {
    onNextFrame(this.#draw);
  }

  close(): void {
    this.#resize.disconnect();
    this.#ends.forEach((end) => {
      end();
    });
    this.#destroy();
  }

  /** What is drawn now; undefined before the first drawing. */
  get canvas(): HTMLCanvasElement | undefined {
    return this.#plot?.ctx.canvas;
  }

  readonly #draw = () => {
    const width = this.element.clientWidth;
    if (width === 0) {
      return; // hidden, or not in the page
    }
    const { readings, lines, window } = this.#options;
    const { from, to } = window;
    // With a reading on each side, lines go on to the edges.
    const begin = Math.max(readings.indexOf(from) - 1, 0);
    const end = Math.min(readings.indexOf(to) + 1, readings.length);
    const shown = readings.times.subarray(begin, end);
    const { times, columns } = thin(
      shown,
      lines.map((line) =>
        cleaned(readings.column(line.name)?.subarray(begin, end), line, shown.length),
      ),
      0,
      shown.length,
      Math.ceil(width / 2),
    );
    if (lines.some(({ isStepped }) => isStepped) && window.isLive && times.length > 0) {
      times.push(to); // it still is what it was
      columns.forEach((column) => column.push(column.at(-1) ?? null));
    }
    this.#plot ??= this.#make(width);
    this.#plot.batch(() => {
      this.#plot?.setData([times, ...columns] as uPlot.AlignedData, false);
      this.#plot?.setScale('x', { min: from, max: to });
    });
    this.#showLegend();
  };

  #make(width: number): uPlot {
    const { lines, height = 180, isSmall = false, sync, range } = this.#options;
    const style = getComputedStyle(this.element);
    const color = (name: string) => style.getPropertyValue(name).trim();
    const axis: uPlot.Axis = {
      stroke: color('--soft'),
      grid: { stroke: color('--line'), width: 1 },
      ticks: { stroke: color('--line'), width: 1 },
      font: `12px ${style.fontFamily}`,
    };
    const stepped = uPlot.paths.stepped?.({ align: 1 });
    const plot = new uPlot(
      {
        width,
        height,
        legend: { show: false },
        ...(isSmall ? { padding: [2, 0, 2, 0] as uPlot.Padding } : {}),
        axes: isSmall
          ? [{ show: false }, { show: false }]
          : [
              { ...axis, space: 80, values: (_, splits) => splits.map(axisClock) },
              { ...axis, size: 56, ...axisText(lines) },
            ],
        scales: { x: { time: true }, y: { range: (_, low, high) => rangeOf(low, high, range) } },
        series: [
          {},
          ...lines.map((line): uPlot.Series => {
            const own: uPlot.Series = {
              label: line.label,
              stroke: color(line.color),
              width: isSmall ? 1.5 : 2,
              points: { show: (own) => own.data[0].length < FEW_POINTS, size: isSmall ? 3 : 5 },
              spanGaps: false,
            };
            return line.isStepped && stepped ? { ...own, paths: stepped } : own;
          }),
        ],
        cursor: {
          show: !isSmall,
          y: false,
          drag: { x: false, y: false },
          points: { size: 6 },
          ...(sync === undefined ? {} : { sync: { key: sync } }),
        },
        hooks: {
          setCursor: [
            () => {
              this.#showLegend();
            },
          ],
        },
      },
      [[], ...lines.map(() => [])],
    );
    this.element.prepend(plot.root);
    return plot;
  }

  /** The values at the cursor, or the latest ones. */
  #showLegend(): void {
    if (this.#options.isSmall === true) {
      return;
    }
    const { lines, window } = this.#options;
    const plot = this.#plot;
    const index = plot?.cursor.idx ?? undefined;
    const at = index ?? (plot?.data[0].length ?? 0) - 1;
    const parts = lines.map((line, number) => {
      const value = plot?.data[number + 1]?.[at];
      const key = h('span', { class: 'key' });
      key.style.background = `var(${line.color})`;
      return h('span', {}, key, `${line.label} `, h('strong', {}, textOf(line, value)));
    });
    const time = index === undefined ? undefined : plot?.data[0][at];
    const when = time === undefined ? (window.isLive ? 'latest' : 'last shown') : clock(time);
    this.#legend.replaceChildren(h('span', { class: 'soft' }, when), ...parts);
  }

  #setSize(): void {
    const width = this.element.clientWidth;
    if (this.#plot && width > 0) {
      this.#plot.setSize({ width, height: this.#options.height ?? 180 });
    }
    this.update();
  }

  #destroy(): void {
    this.#plot?.destroy();
    this.#plot = undefined;
  }

  #addHands(): void {
    const { window } = this.#options;
    const { element } = this;
    const length = () => window.to - window.from;
    const secondsOf = (pixels: number) => (pixels / (this.#plot?.over.clientWidth ?? 1)) * length();
    const timeAt = (x: number) =>
      window.from + secondsOf(x - (this.#plot?.over.getBoundingClientRect().left ?? 0));
    const fingers = new Map<number, number>();
    element.addEventListener('pointerdown', (event) => {
      fingers.set(event.pointerId, event.clientX);
    });
    element.addEventListener('pointermove', (event) => {
      const before = fingers.get(event.pointerId);
      if (before === undefined) {
        return;
      }
      element.setPointerCapture(event.pointerId);
      const other = [...fingers].find(([id]) => id !== event.pointerId)?.[1];
      if (other === undefined) {
        window.pan(-secondsOf(event.clientX - before));
      } else if (event.clientX !== other) {
        window.zoom(Math.abs((before - other) / (event.clientX - other)), timeAt(other));
      }
      fingers.set(event.pointerId, event.clientX);
    });
    for (const end of ['pointerup', 'pointercancel'] as const) {
      element.addEventListener(end, ({ pointerId }) => fingers.delete(pointerId));
    }
    element.addEventListener(
      'wheel',
      (event) => {
        // The page scrolls over plots as well; with a key it zooms, as maps do.
        if (event.ctrlKey || event.shiftKey || event.metaKey) {
          event.preventDefault();
          window.zoom(
            event.deltaY + event.deltaX > 0 ? ZOOM_STEP : 1 / ZOOM_STEP,
            timeAt(event.clientX),
          );
        }
      },
      { passive: false },
    );
    element.addEventListener('dblclick', () => {
      window.reset();
    });
    element.addEventListener('keydown', (event) => {
      const keys: Readonly<Record<string, () => void>> = {
        ArrowLeft: () => {
          window.pan(-PAN_SHARE * length());
        },
        ArrowRight: () => {
          window.pan(PAN_SHARE * length());
        },
        '+': () => {
          window.zoom(1 / ZOOM_STEP);
        },
        '-': () => {
          window.zoom(ZOOM_STEP);
        },
        Home: () => {
          window.reset();
        },
      };
      const act = keys[event.key];
      if (act && !event.ctrlKey && !event.altKey && !event.metaKey) {
        event.preventDefault();
        act();
      }
    });
  }
}

function cleaned(column: Float64Array | undefined, line: PlotLine, length: number): Float64Array {
  if (!column) {
    return new Float64Array(length).fill(NaN);
  }
  const { isGap } = line;
  return isGap ? column.map((value) => (isGap(value) ? NaN : value)) : column;
}

function axisText(lines: readonly PlotLine[]): uPlot.Axis {
  const text = lines[0]?.text;
  return text
    ? {
        splits: () => [0, 1, 2, 3],
        values: (_, splits) => splits.map((value) => text(value)),
        size: 72,
      }
    : {};
}

function rangeOf(
  low: number | null,
  high: number | null,
  least: readonly [number, number] | undefined,
): [number, number] {
  const [smallest, largest] = least ?? [Infinity, -Infinity];
  const from = Math.min(low ?? smallest, smallest);
  const to = Math.max(high ?? largest, largest);
  if (!Number.isFinite(from) || !Number.isFinite(to)) {
    return [0, 1];
  }
  const room = (to - from || 2) * 0.06;
  return [from - room, to + room];
}

function textOf(line: PlotLine, value: number | null | undefined): string {
  if (value === null || value === undefined) {
    return '–';
  }
  return line.text?.(value) ?? `${value.toFixed(line.digits ?? 0)} ${line.unit}`.trim();
}

function axisClock(seconds: number): string {
  return new Date(1000 * seconds).toLocaleTimeString(undefined, { hour12: false });
}

function clock(seconds: number): string {
  const time = new Date(1000 * seconds);
  return `${time.toLocaleTimeString(undefined, { hour12: false })}.${Math.floor(time.getMilliseconds() / 100)}`;
}
