// The history's table and file.
//
//   history.txt     a line an entry, in table order:
//                   id TAB computer TAB nickname TAB last connected
//
// What goes into the table from outside, a name that another computer gave itself above all,
// may hold any byte. A tab or a line end in it would shift the fields of the file, and a
// Ctrl+Z would end it for a reader of text; so control characters become '?' on their way
// into the table, and a saved file always reads back as it was.
//
// Owner: the window's thread. No lock.
#include "app/history.h"

#include "protocol/bytes.h"

#include <stdio.h>
#include <string.h>

namespace app
{

static struct {
    char path[HISTORY_PATH_SIZE];
    history_entry entries[HISTORY_MAX];
    int32_t count; // <= HISTORY_MAX
} history;

// copy_text for texts that go into the file.
static void copy_printable(char *dst, size_t size, const char *text)
{
    copy_text(dst, size, text);
    for (char *c = dst; *c; c++)
        if ((uint8_t)*c < ' ' || *c == 0x7F)
            *c = '?';
}

// Copies the field that the next tab ends, cut to its size. Returns what follows the tab,
// null when there is none.
static const char *take_field(char *dst, size_t size, const char *text)
{
    const char *tab = strchr(text, '\t');
    if (!tab)
        return nullptr;
    size_t length = (size_t)(tab - text);
    if (length > size - 1)
        length = size - 1;
    memcpy(dst, text, length);
    dst[length] = 0;
    return tab + 1;
}

bool history_parse_line(const char *line, history_entry *entry)
{
    *entry = {};
    const char *rest = take_field(entry->id, sizeof entry->id, line);
    if (rest)
        rest = take_field(entry->computer, sizeof entry->computer, rest);
    if (rest)
        rest = take_field(entry->nickname, sizeof entry->nickname, rest);
    if (!rest)
        return false;
    copy_text(entry->last_connected, sizeof entry->last_connected, rest);
    entry->last_connected[strcspn(entry->last_connected, "\r\n")] = 0;
    return true;
}

void history_load(const char *path)
{
    copy_text(history.path, sizeof history.path, path);
    history.count = 0;
    FILE *file = fopen(history.path, "r");
    if (!file)
        return;
    char line[HISTORY_LINE_SIZE];
    while (history.count < HISTORY_MAX && fgets(line, sizeof line, file))
        if (history_parse_line(line, &history.entries[history.count]))
            history.count++;
    fclose(file);
}

void history_save()
{
    FILE *file = fopen(history.path, "w");
    if (!file)
        return;
    for (int32_t i = 0; i < history.count; i++) {
        const history_entry *entry = &history.entries[i];
        fprintf(file, "%s\t%s\t%s\t%s\n", entry->id, entry->computer, entry->nickname,
                entry->last_connected);
    }
    fclose(file);
}

int32_t history_count()
{
    return history.count;
}

const history_entry *history_get(int32_t index)
{
    return index >= 0 && index < history.count ? &history.entries[index] : nullptr;
}

int32_t history_find(const char *id)
{
    for (int32_t i = 0; i < history.count; i++)
        if (strcmp(history.entries[i].id, id) == 0)
            return i;
    return -1;
}

void history_record(const char *target, const char *computer, const char *when)
{
    history_entry entry = {};
    copy_printable(entry.id, sizeof entry.id, target);
    int32_t index = history_find(entry.id);
    if (index < 0) {
        if (history.count == HISTORY_MAX)
            return;
        index = history.count++;
    } else {
        entry = history.entries[index];
    }
    if (computer[0] != 0)
        copy_printable(entry.computer, sizeof entry.computer, computer);
    copy_printable(entry.last_connected, sizeof entry.last_connected, when);

    memmove(&history.entries[1], &history.entries[0], (size_t)index * sizeof entry);
    history.entries[0] = entry;
    history_save();
}

void history_rename(int32_t index, const char *nickname)
{
    if (index < 0 || index >= history.count)
        return;
    history_entry *entry = &history.entries[index];
    copy_printable(entry->nickname, sizeof entry->nickname, nickname);
    history_save();
}

void history_remove(int32_t index)
{
    if (index < 0 || index >= history.count)
        return;
    history.count--;
    memmove(&history.entries[index], &history.entries[index + 1],
            (size_t)(history.count - index) * sizeof(history_entry));
    history_save();
}

const char *history_column(const history_entry *entry, int32_t column)
{
    switch (column) {
    case 0:
        return entry->nickname[0] ? entry->nickname : "-";
    case 1:
        return entry->computer[0] ? entry->computer : "?";
    case 2:
        return entry->id;
    case 3:
        return entry->last_connected;
    default:
        return "";
    }
}

} // namespace app
