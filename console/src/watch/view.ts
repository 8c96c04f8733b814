import type { View, ViewKind } from '../app.js';
import { h } from '../dom.js';
import { HandsCard } from './hands-card.js';
import { Plots } from './plots.js';
import { ReplayCard } from './replay-card.js';
import { ServiceCards } from './service-cards.js';
import { Toolbar } from './toolbar.js';

/** What the service does: its sensors at full rate, who wants them, and hands to put any value on the wrist. */
export const watchView: ViewKind = {
  id: 'watch',
  title: 'Watch’s view',
  about: 'What the service on the watch senses and does, at full rate, and hands to change it.',
  lacks: (app) =>
    app.watch
      ? undefined
      : 'The token of this page is for a phone alone. One of the scope console shows this, too.',
  create(app): View {
    const { watch } = app;
    if (!watch) {
      throw new Error('the watch cannot be seen with this token');
    }
    const plots = new Plots(app, watch);
    const toolbar = new Toolbar(app, watch, plots.plots);
    const replay = new ReplayCard(app, watch);
    const hands = new HandsCard(app, watch);
    const service = new ServiceCards(watch);
    const live = [plots, replay, service];
    return {
      element: h(
        'div',
        {},
        toolbar.element,
        plots.element,
        h('div', { class: 'grid' }, replay.element, hands.element, ...service.elements),
      ),
      shown() {
        live.forEach((part) => {
          part.shown();
        });
      },
      hidden() {
        live.forEach((part) => {
          part.hidden();
        });
      },
      close() {
        [toolbar, hands, ...live].forEach((part) => {
          part.close();
        });
      },
    };
  },
};
