/** A value that tells of its changes. */
export class State<T> {
  #value: T;
  readonly #listeners = new Set<(value: T) => void>();

  constructor(value: T) {
    this.#value = value;
  }

  get value(): T {
    return this.#value;
  }

  /** Tells, unless it is the same value. */
  set(value: T): void {
    if (!Object.is(value, this.#value)) {
      this.#value = value;
      this.tell();
    }
  }

  /** Tells of a change inside the value. */
  tell(): void {
    for (const listener of [...this.#listeners]) {
      listener(this.#value);
    }
  }

  /**
   * Tells now, and of each change.
   *
   * @returns what ends it
   */
  listen(listener: (value: T) => void): () => void {
    this.#listeners.add(listener);
    listener(this.#value);
    return () => {
      this.#listeners.delete(listener);
    };
  }
}
