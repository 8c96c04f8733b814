import type { View, ViewKind } from '../app.js';
import { h } from '../dom.js';
import { ActivityBand } from './activity-band.js';
import { HeartCard } from './heart-card.js';
import { PacketCard } from './packet-card.js';
import type { Phone } from './phone.js';
import { SensorsCard } from './sensors-card.js';
import { StepsCard } from './steps-card.js';

/** A card of the view. */
export interface Part {
  readonly element: HTMLElement;
  close(): void;
}

/** What an app sees. */
export const phoneView: ViewKind = {
  id: 'phone',
  title: 'Phone’s view',
  about: 'What an app on a phone sees: it asks the watch in small packets, and the watch answers.',
  lacks: (app) =>
    app.phone
      ? undefined
      : 'The token of this page lets it look into the watch, but not be its phone. One of the scope console does both.',
  create(app): View {
    const { phone } = app;
    if (!phone) {
      throw new Error('this page may not be a phone');
    }
    const parts: Part[] = [
      new HeartCard(phone),
      new StepsCard(phone),
      new ActivityBand(phone),
      new SensorsCard(phone, app),
      new PacketCard(phone, app),
    ];
    return {
      element: h('div', { class: 'grid' }, seat(phone), ...parts.map(({ element }) => element)),
      close() {
        parts.forEach((part) => {
          part.close();
        });
      },
    };
  },
};

/** A watch has one phone: this page can leave it to another one. */
function seat(phone: Phone): HTMLElement {
  const text = h('span', {});
  const button = h('button', {
    id: 'seat',
    onclick: () => {
      if (phone.watch) {
        phone.disconnect();
      } else {
        phone.connect();
      }
    },
  });
  phone.state.listen(({ kind }) => {
    text.textContent = {
      off: 'This page has left the watch to another phone.',
      connecting: 'This page is becoming the watch’s phone …',
      linked: 'This page is the watch’s phone; no other one can be meanwhile.',
      taken: 'Another phone has the watch. This page waits until it leaves.',
      'token-ended': 'The token has ended.',
      away: 'The link to the watch is lost. This page tries again by itself.',
    }[kind];
    button.textContent = kind === 'off' ? 'Be the phone' : 'Leave the watch';
  });
  return h('section', { class: 'seat', 'aria-label': 'The phone’s place' }, text, button);
}
