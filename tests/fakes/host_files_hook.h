// The identity's file system calls without access control, and a hook between them.
#ifndef QV_TESTS_FAKES_HOST_FILES_HOOK_H
#define QV_TESTS_FAKES_HOST_FILES_HOOK_H

// Called once, before the next private file is opened; may be null.
extern void (*host_files_on_open)();

#endif
