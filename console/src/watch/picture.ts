import type { Plotted } from './plots.js';

const HEADING = 28; // CSS pixels

/** The plots as they are drawn now, one below the other, as a PNG; null where there is nothing to draw. */
export function toPicture(
  plots: readonly Plotted[],
  from: number,
  to: number,
): Promise<Blob | null> {
  const drawn = plots.flatMap(({ title, plot }) =>
    plot.canvas ? [{ title, canvas: plot.canvas }] : [],
  );
  const scale = devicePixelRatio;
  const heading = HEADING * scale;
  const picture = document.createElement('canvas');
  picture.width = Math.max(...drawn.map(({ canvas }) => canvas.width), 0);
  picture.height = drawn.reduce((sum, { canvas }) => sum + heading + canvas.height, heading);
  const brush = picture.getContext('2d');
  if (!brush || picture.width === 0) {
    return Promise.resolve(null);
  }
  const style = getComputedStyle(document.documentElement);
  brush.fillStyle = style.getPropertyValue('--card');
  brush.fillRect(0, 0, picture.width, picture.height);
  brush.fillStyle = style.getPropertyValue('--ink');
  brush.textBaseline = 'middle';
  const write = (text: string, weight: number, top: number) => {
    brush.font = `${weight} ${14 * scale}px ${style.fontFamily}`;
    brush.fillText(text, 8 * scale, top + heading / 2);
  };
  write(`${instant(from)} to ${instant(to)}`, 400, 0);
  let top = heading;
  for (const { title, canvas } of drawn) {
    write(title, 600, top);
    brush.drawImage(canvas, 0, top + heading);
    top += heading + canvas.height;
  }
  return new Promise((resolve) => {
    picture.toBlob(resolve);
  });
}

function instant(seconds: number): string {
  return new Date(1000 * seconds).toLocaleString(undefined, { hour12: false });
}
