// A computer name that the test chooses, in place of the system's.
#ifndef QV_TESTS_FAKES_COMPUTER_NAME_SCRIPT_H
#define QV_TESTS_FAKES_COMPUTER_NAME_SCRIPT_H

// The name, at most 32 characters; null: the system does not tell it.
extern const char *computer_name_script;

#endif
