#pragma once

namespace Parvane {

/**
 * True when the service manager connected this descriptor to the journal: JOURNAL_STREAM holds its
 * device and inode, "device:inode" in decimal. Without that variable it makes no system call.
 *
 * The variable alone says nothing: it reaches programs whose output was turned elsewhere, too.
 */
bool IsJournalStream(int fd) noexcept;

} // namespace Parvane
