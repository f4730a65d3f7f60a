// The computers that this user has connected to, most recent first, kept in history.txt.
//
// One table for the process, used by the window's thread alone. It is read once, at the
// program's start, and written after every change. Passwords are not in it.
#ifndef QV_APP_HISTORY_H
#define QV_APP_HISTORY_H

#include "protocol/messages.h"

#include <stddef.h>
#include <stdint.h>

namespace app
{

constexpr int32_t HISTORY_MAX = 256;      // entries
constexpr size_t HISTORY_PATH_SIZE = 260; // buffer for the file's path
constexpr size_t HISTORY_TEXT_SIZE = 64;  // of a target or a nickname, with terminator
constexpr size_t HISTORY_WHEN_SIZE = 24;  // of a time "2026-03-09 14:05", with terminator
constexpr size_t HISTORY_LINE_SIZE = 300; // longer lines of the file are read in pieces
constexpr int32_t HISTORY_COLUMNS = 4;    // of a row in the window's list

struct history_entry {
    char id[HISTORY_TEXT_SIZE];       // what was typed to reach it: the entry's key
    char computer[NAME_BYTES + 1];    // what its host calls itself
    char nickname[HISTORY_TEXT_SIZE]; // what the user calls it; empty until then
    char last_connected[HISTORY_WHEN_SIZE];
};

// Reads the file at path, which every later change is written to. A missing file is an empty
// history. Lines that are none of ours are left out, as is what comes after HISTORY_MAX.
void history_load(const char *path);

// Writes the file; silent when it cannot be written.
void history_save();

int32_t history_count();

// The entry at an index, 0 being the most recent; null when there is none. Valid until the
// next change.
const history_entry *history_get(int32_t index);

// The index of the first entry with this id, compared exactly; -1 when there is none.
int32_t history_find(const char *id);

// A host was reached under this target: its entry, a new one if need be, comes to the front
// with this time. An empty computer name leaves the known one. A full table takes no new
// target (kept on purpose: none is forgotten for it). Saves what it changed.
void history_record(const char *target, const char *computer, const char *when);

// Both do nothing for an index that has no entry, and save otherwise.
void history_rename(int32_t index, const char *nickname);
void history_remove(int32_t index);

// What the list shows of an entry in a column: nickname, computer, ID, last connection. Pure.
const char *history_column(const history_entry *entry, int32_t column);

// Takes one line of the file apart, with or without its line end. The line is trusted in
// nothing. False when it is none of ours. Pure.
[[nodiscard]] bool history_parse_line(const char *line, history_entry *entry);

} // namespace app

#endif
