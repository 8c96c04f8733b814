// Whoever looks at the page: a browser with a service and a gateway of its own, for the tests of one file.
import { mkdirSync } from 'node:fs';

import type { Browser, BrowserContext, BrowserContextOptions, Page } from 'playwright-core';
import { afterAll, afterEach, beforeAll, expect, vi } from 'vitest';

import { launch, newPage, PATIENCE, SEEN, type Watched, type World } from './world.js';

/** What takes many readings, one a second. */
export const LONG = { ...PATIENCE, timeout: 80_000 };

/** A visitor of all tests of a block, each of which begins with {@link Visitor.fresh} or {@link Visitor.open}. */
export function visitorOf(make: () => World): Visitor {
  const visitor = new Visitor();
  beforeAll(() => visitor.begin(make()));
  afterEach(() => visitor.leave());
  afterAll(() => visitor.end());
  return visitor;
}

export class Visitor {
  world!: World;
  context!: BrowserContext;
  page!: Page;
  /** Of the scope console. */
  token = '';
  #browser!: Browser;
  #watched!: Watched;

  async begin(world: World): Promise<void> {
    mkdirSync(SEEN, { recursive: true });
    this.world = world;
    [this.#browser] = await Promise.all([launch(), world.start()]);
    this.token = await world.token('tester');
  }

  async end(): Promise<void> {
    await this.#browser.close();
    await this.world.end();
  }

  /** A browser of its own, which nobody has signed in. */
  async fresh(options: BrowserContextOptions = {}): Promise<void> {
    const viewport = { width: 1280, height: 900 };
    this.context = await this.#browser.newContext({ viewport, ...options });
    this.#watched = await newPage(this.context);
    this.page = this.#watched.page;
  }

  async open(options: BrowserContextOptions = {}): Promise<void> {
    await this.fresh(options);
    await this.page.goto(`${this.world.url}/#token=${this.token}`);
    await this.page.waitForSelector('.now');
  }

  async leave(): Promise<void> {
    const { problems, hosts } = this.#watched;
    await this.context.close();
    expect(problems, 'what the page complained of').toEqual([]);
    expect([...hosts], 'whom the page asked').toEqual([`127.0.0.1:${this.world.port}`]);
  }

  async linked(): Promise<void> {
    await this.expectText('.seat', /This page is the watch’s phone;/);
  }

  async show(view: 'phone' | 'watch'): Promise<void> {
    await this.page.click(`#tab-${view}`);
    await this.page.waitForSelector(`#panel-${view}:not([hidden])`);
  }

  async textOf(selector: string): Promise<string> {
    return (await this.page.textContent(selector)) ?? '';
  }

  async expectText(selector: string, text: RegExp): Promise<void> {
    await vi.waitFor(async () => {
      expect(await this.textOf(selector), selector).toMatch(text);
    }, PATIENCE);
  }

  /** A row of the packet log that contains all of these words. */
  expectRow(words: string[], patience = {}): Promise<string> {
    return vi.waitFor(
      async () => {
        const rows = await this.page.locator('.packets tbody tr').allTextContents();
        const first = rows.find((row) => words.every((word) => row.includes(word)));
        expect(first, `a packet with ${words.join(', ')}`).toBeDefined();
        return first ?? '';
      },
      { ...PATIENCE, ...patience },
    );
  }

  /** What a button has the browser store. */
  async saved(button: string): Promise<string> {
    const [download] = await Promise.all([
      this.page.waitForEvent('download'),
      this.page.click(button),
    ]);
    return download.path();
  }
}
