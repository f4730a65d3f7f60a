// The list view that shows the history.
#include "app/history_list.h"

#include "app/connect_flow.h"
#include "app/history.h"
#include "app/input_dialog.h"
#include "app/main_window.h"
#include "protocol/bytes.h"
#include "protocol/win32.h"

#include <commctrl.h>
#include <string.h>
#include <time.h>

namespace app
{

static_assert(INPUT_TEXT_SIZE == HISTORY_TEXT_SIZE, "what the dialog takes is a nickname");

void history_list_columns()
{
    static const struct {
        const char *title;
        int32_t width;
    } columns[HISTORY_COLUMNS] = {
        {"Nickname", 110}, {"Computer", 110}, {"ID", 100}, {"Last connected", 120}};

    HWND list = controls.history_list;
    constexpr LPARAM extended = LVS_EX_FULLROWSELECT | LVS_EX_GRIDLINES;
    SendMessageA(list, LVM_SETEXTENDEDLISTVIEWSTYLE, extended, extended);
    for (int32_t i = 0; i < HISTORY_COLUMNS; i++) {
        LVCOLUMNA column = {};
        column.mask = LVCF_TEXT | LVCF_WIDTH;
        column.pszText = (char *)columns[i].title;
        column.cx = columns[i].width;
        SendMessageA(list, LVM_INSERTCOLUMNA, (WPARAM)i, (LPARAM)&column);
    }
}

void history_fill_list()
{
    HWND list = controls.history_list;
    SendMessageA(list, LVM_DELETEALLITEMS, 0, 0);
    const history_entry *entry;
    for (int32_t row = 0; (entry = history_get(row)); row++) {
        LVITEMA item = {};
        item.mask = LVIF_TEXT;
        item.iItem = row;
        item.pszText = (char *)history_column(entry, 0);
        SendMessageA(list, LVM_INSERTITEMA, 0, (LPARAM)&item);
        for (int32_t column = 1; column < HISTORY_COLUMNS; column++) {
            item.iSubItem = column;
            item.pszText = (char *)history_column(entry, column);
            SendMessageA(list, LVM_SETITEMTEXTA, (WPARAM)row, (LPARAM)&item);
        }
    }
}

int32_t history_selected()
{
    LRESULT row =
        SendMessageA(controls.history_list, LVM_GETNEXTITEM, (WPARAM)-1, LVNI_SELECTED);
    return row >= 0 && row < history_count() ? (int32_t)row : -1;
}

void history_record_connection()
{
    char when[HISTORY_WHEN_SIZE] = "";
    __time64_t now = _time64(nullptr);
    const tm *local = _localtime64(&now);
    if (local)
        strftime(when, sizeof when, "%Y-%m-%d %H:%M", local);
    history_record(connected_host.target, connected_host.computer, when);
    history_fill_list();
}

void history_rename_selected()
{
    int32_t index = history_selected();
    const history_entry *entry = history_get(index);
    if (!entry)
        return;
    char id[HISTORY_TEXT_SIZE];
    char nickname[INPUT_TEXT_SIZE];
    copy_text(id, sizeof id, entry->id);
    copy_text(nickname, sizeof nickname, entry->nickname);
    if (!input_dialog(main_window, "Nickname", "Name for this computer:", nickname))
        return;
    // A connection that was recorded while the dialog was open has moved the rows.
    entry = history_get(index);
    if (!entry || strcmp(entry->id, id) != 0)
        index = history_find(id);
    history_rename(index, nickname);
    history_fill_list();
}

void history_remove_selected()
{
    int32_t index = history_selected();
    if (index < 0)
        return;
    history_remove(index);
    history_fill_list();
}

} // namespace app
