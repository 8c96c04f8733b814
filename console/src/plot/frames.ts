/** Draws of one frame together, ten frames a second at most, and none while the page is hidden. */
const LEAST_MS = 100;

const wanted = new Set<() => void>();
let isScheduled = false;
let drawnAt = -Infinity;

const MOST_MEASURES = 600;
let measures = 0;

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
  drawnAt = performance.now();
  // What is asked for by one of them is drawn along.
  for (const draw of wanted) {
    draw();
  }
  wanted.clear();
  isScheduled = false;
  measureFrame();
}

/** For the tools of browsers, and for a test: how long drawing took, the latest some hundred times. */
function measureFrame(): void {
  performance.measure('frame', { start: drawnAt });
  measures += 1;
  if (measures % MOST_MEASURES === 0) {
    performance.clearMeasures('frame');
  }
}
