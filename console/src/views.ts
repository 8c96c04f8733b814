import type { ViewKind } from './app.js';
import { phoneView } from './phone/view.js';
import { watchView } from './watch/view.js';

/** The tabs, in their order; the first one is shown first. */
export const VIEWS: readonly ViewKind[] = [phoneView, watchView];
