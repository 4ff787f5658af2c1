// The process's journal: the running policy comes back by itself at the next start.
//
// Two sources. The sets that the daemon accepts are appended before they are applied, and taken back when
// the handler then fails; so a set that was answered with success is there after a crash of the process, one
// answered with failure is not, and one without answer may be. The host's services put down what they hold
// after each change and before its answer.
//
//   closed    the option host.journal is off, or the process is a test: nothing is kept, nothing refused
//   writing   each change is written; leaves when a write fails (failing)
//   failing   changes are refused before they are made; each attempt tries the file again, and one that can
//             be written leads back to writing
//
// The start: journalOpen, the services' restores, then (commandKeeper) the replay through the daemon's own
// handlers before the command socket opens, and the forwarding plane is told that the policy is complete.
// What is refused then is logged, listed by "journal.show", and stays in the journal for the next start.
#ifndef HOST_JOURNAL_JOURNAL_H
#define HOST_JOURNAL_JOURNAL_H

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "host/journal/journal_file.h"

namespace host {

// Opens the journal as the options say and becomes the keeper of accepted sets. settle: called once after a
// replay that brought something back. Result: empty, or why not. Before the services. Lock: none
std::string journalOpen(std::function<void()> settle);

// Ends it; the file can be opened again. For tests. Lock: none
void journalClose();

// What a service has kept, by key; empty when the journal is closed. Lock: takes the journal's
std::map<std::string, std::string> journalTexts(const std::string &service);

// Throws std::runtime_error when a change could not be kept now, and so must not be made. Lock: takes the journal's
void journalMustBeReady();

// Keeps what a service has changed; texts that are kept already are not written again. Throws
// std::runtime_error, which says that the change was made and is not kept. Lock: takes the journal's
void journalKeep(const std::string &service, const JournalTexts &texts);

// The same with all that the service holds now: keys that are not there go. Lock: takes the journal's
void journalKeepAll(const std::string &service, const std::map<std::string, std::string> &texts);

// Notes that something of the journal was not brought back. Lock: takes the journal's
void journalNotRestored(const std::string &what, const std::string &why);

// The daemon has taken this interface out of policy routing by itself. Any thread. Lock: takes the journal's
void journalInterfaceLeft(uint32_t unit);

// Registers "journal.show". Lock: none
void journalMgmtRegister();

} // namespace host

#endif
