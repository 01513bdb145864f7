// SPDX-License-Identifier: Apache-2.0
// Linked to a program that takes all of its memory from the library.

#include "ovel_memory.h"

OVEL_REPLACE_NEW_AND_DELETE;
