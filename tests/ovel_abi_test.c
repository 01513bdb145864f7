// SPDX-License-Identifier: Apache-2.0
/* A C program that uses the four plain functions as it would those of its own
   runtime library. Exit status 0, or the number of the step that went wrong. */
#include "ovel_malloc.h"

#include <string.h>

int main(void) {
    static char const zeros[15] = {0};
    char* first = ovel_malloc(10);
    char* second = ovel_calloc(3, 5);
    if (first == NULL)
        return 1;
    if (second == NULL || memcmp(second, zeros, sizeof zeros) != 0)
        return 2;
    memcpy(first, "from here", 10);
    first = ovel_realloc(first, 10000);
    if (first == NULL || strcmp(first, "from here") != 0)
        return 3;
    ovel_free(first);
    ovel_free(second);
    ovel_free(NULL);
    return 0;
}
