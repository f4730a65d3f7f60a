#include "tests/fakes/computer_name_script.h"

#include "protocol/bytes.h"
#include "protocol/computer_name.h"

const char *computer_name_script = "TESTBOX";

void computer_name_get(char name[NAME_BYTES])
{
    copy_padded((uint8_t *)name, NAME_BYTES, computer_name_script ? computer_name_script : "");
}
