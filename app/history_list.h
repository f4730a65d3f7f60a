// The history in the main window: its rows, and what the buttons below do. Window thread.
#ifndef QV_APP_HISTORY_LIST_H
#define QV_APP_HISTORY_LIST_H

#include <stdint.h>

namespace app
{

// Gives the new list its columns.
void history_list_columns();

// Makes the rows anew from the table.
void history_fill_list();

// The index of the selected row's entry; -1 when none is selected.
int32_t history_selected();

// The viewer has reached a host (connected_host, connect_flow.h): records it, with the time
// that it is now.
void history_record_connection();

// Both do nothing when no row is selected.
void history_rename_selected();
void history_remove_selected();

} // namespace app

#endif
