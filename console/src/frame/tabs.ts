import type { App, View, ViewKind } from '../app.js';
import { h } from '../dom.js';
import { VIEWS } from '../views.js';

interface Tab {
  readonly kind: ViewKind;
  readonly button: HTMLButtonElement;
  readonly panel: HTMLElement;
  view?: View;
}

/** The views, one of which is shown. Each is made when it is first looked at. */
export class Tabs {
  readonly element: HTMLElement;
  readonly #app: App;
  readonly #tabs: readonly Tab[];
  #shown: Tab | undefined;
  readonly #onHash = () => {
    this.#show(this.#wanted());
  };

  constructor(app: App) {
    this.#app = app;
    this.#tabs = VIEWS.map((kind) => this.#make(kind));
    const list = h(
      'div',
      { role: 'tablist', class: 'tabs', 'aria-label': 'Views' },
      ...this.#tabs.map(({ button }) => button),
    );
    list.addEventListener('keydown', (event) => {
      this.#onKey(event);
    });
    this.element = h('div', {}, list, ...this.#tabs.map(({ panel }) => panel));
    addEventListener('hashchange', this.#onHash);
    this.#show(this.#wanted());
  }

  close(): void {
    removeEventListener('hashchange', this.#onHash);
    for (const { view } of this.#tabs) {
      view?.hidden?.();
      view?.close?.();
    }
  }

  #make(kind: ViewKind): Tab {
    const { id, title, about } = kind;
    const button = h(
      'button',
      {
        role: 'tab',
        id: `tab-${id}`,
        'aria-controls': `panel-${id}`,
        onclick: () => {
          history.replaceState(null, '', `#${id}`);
          this.#show(this.#wanted());
        },
      },
      title,
    );
    const panel = h(
      'section',
      { role: 'tabpanel', id: `panel-${id}`, 'aria-labelledby': `tab-${id}`, hidden: true },
      h('p', { class: 'about soft' }, about),
    );
    return { kind, button, panel };
  }

  /** As the address says; else the first one that the token lets be shown. */
  #wanted(): Tab | undefined {
    return (
      this.#tabs.find(({ kind }) => `#${kind.id}` === location.hash) ??
      this.#tabs.find(({ kind }) => kind.lacks(this.#app) === undefined)
    );
  }

  #show(wanted: Tab | undefined): void {
    if (!wanted || wanted === this.#shown) {
      return;
    }
    this.#shown?.view?.hidden?.();
    this.#shown = wanted;
    for (const tab of this.#tabs) {
      const isShown = tab === wanted;
      tab.button.setAttribute('aria-selected', String(isShown));
      tab.button.tabIndex = isShown ? 0 : -1;
      tab.panel.hidden = !isShown;
    }
    wanted.view ??= this.#create(wanted);
    wanted.view.shown?.();
  }

  #create({ kind, panel }: Tab): View {
    const lack = kind.lacks(this.#app);
    const view =
      lack === undefined ? kind.create(this.#app) : { element: h('p', { class: 'notice' }, lack) };
    panel.append(view.element);
    return view;
  }

  #onKey(event: KeyboardEvent): void {
    const step = { ArrowLeft: -1, ArrowRight: 1 }[event.key];
    if (step !== undefined && this.#shown) {
      const at = this.#tabs.indexOf(this.#shown) + step;
      const next = this.#tabs[(at + this.#tabs.length) % this.#tabs.length];
      next?.button.click();
      next?.button.focus();
    }
  }
}
