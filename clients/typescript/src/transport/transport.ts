/**
 * What carries packets to the watch and back.
 *
 * @module
 */

/** What a link tells. None is called before {@link Transport.open} has returned, or after the link's end. */
export interface LinkEvents {
  /** Packets can be sent. */
  opened(): void;
  /** A packet of the watch, whole. */
  packet(bytes: Uint8Array): void;
  /**
   * The link is gone, or could not be made; that is its end.
   *
   * @param why - one line for people, without a full stop
   */
  closed(why: string): void;
}

/** A link to the watch, or the attempt to make one. */
export interface Link {
  /** Sends a packet, whole, after those before. May throw; the link is of no more use then. */
  send(packet: Uint8Array): void;
  /** Ends it, or gives the attempt up; that is its end, and `closed` does not follow. */
  close(): void;
}

/** A road to one watch. Another one than those of this package is an object with this function. */
export interface Transport {
  /** Begins to make a link. May throw when that is not possible at all; the next attempt may do better. */
  open(events: LinkEvents): Link;
}
