// SPDX-License-Identifier: Apache-2.0
// Linked to a program whose every allocation is to come from the library.

#include "ovel_memory.h"

OVEL_REPLACE_NEW_AND_DELETE;
