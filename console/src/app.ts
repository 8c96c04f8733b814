import type { Access } from './access.js';
import type { ControlRequests } from './control/requests.js';
import type { Phone } from './phone/phone.js';
import type { TimeWindow } from './plot/time-window.js';
import type { State } from './state.js';
import type { Observed } from './store/observed.js';
import type { SensorsOn } from './store/sensors-on.js';

/** What views are made on. */
export interface App {
  readonly access: State<Access>;
  /** This page as a phone; undefined where the token does not let it be one. */
  readonly phone: Phone | undefined;
  /** The service from the inside; undefined where the token does not let it be seen. */
  readonly watch: WatchSide | undefined;
  /** The stretch of time that all plots show. */
  readonly window: TimeWindow;
  /** A line for people about what they have just done, read out by screen readers too. */
  say(text: string, isBad?: boolean): void;
}

export interface WatchSide {
  readonly observed: Observed;
  readonly requests: ControlRequests;
  readonly sensorsOn: SensorsOn;
  /** Whether requests that change something are allowed. */
  readonly maySteer: boolean;
}

/** One tab of the page. */
export interface View {
  readonly element: HTMLElement;
  /** It can be seen from now on; what it draws while it cannot is wasted. */
  shown?(): void;
  hidden?(): void;
  /** For good. */
  close?(): void;
}

/** How a tab is made: see console/README.md. */
export interface ViewKind {
  /** In the address, behind '#'. */
  readonly id: string;
  readonly title: string;
  /** One line that says what is looked at. */
  readonly about: string;
  /** Why it cannot be shown with this token; undefined when it can. */
  lacks(app: App): string | undefined;
  create(app: App): View;
}
