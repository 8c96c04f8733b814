/** Draws of one frame together, ten frames a second at most, and none while the page is hidden. */
const LEAST_MS = 100;

const wanted = new Set<() => void>();
let isScheduled = false;
let drawnAt = -Infinity;

/** How long the latest frames took to draw, in milliseconds: what a test looks at. */
export const frameTimes: number[] = [];
const MOST_TIMES = 600;

/** Has `draw` called with the next frame, once. */
export function onNextFrame(draw: () => void): void {
  wanted.add(draw);
  if (!isScheduled) {
    isScheduled = true;
    const wait = Math.max(0, drawnAt + LEAST_MS - performance.now());
    setTimeout(() => requestAnimationFrame(drawAll), wait);
  }
}

function drawAll(): void {
  isScheduled = false;
  drawnAt = performance.now();
  const draws = [...wanted];
  wanted.clear();
  for (const draw of draws) {
    draw();
  }
  frameTimes.push(performance.now() - drawnAt);
  if (frameTimes.length > MOST_TIMES) {
    frameTimes.shift();
  }
}
