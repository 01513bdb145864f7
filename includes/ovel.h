// SPDX-License-Identifier: Apache-2.0
// The whole library.
#ifndef OVEL_H
#define OVEL_H

#include "ovel_allocator_group.h"
#include "ovel_allocator_recycler.h"
#include "ovel_allocator_support.h"
#include "ovel_any.h"
#include "ovel_barrier.h"
#include "ovel_channel.h"
#include "ovel_condition.h"
#include "ovel_crc32.h"
#include "ovel_list.h"
#include "ovel_malloc.h"
#include "ovel_mutex.h"
#include "ovel_once.h"
#include "ovel_petri_net.h"
#include "ovel_semaphore.h"
#include "ovel_skip_list.h"
#include "ovel_thread.h"
#include "ovel_thread_base.h"
#include "ovel_thread_function.h"
#include "ovel_thread_group.h"
#include "ovel_thread_specific_ptr.h"
#include "ovel_thread_support.h"
#include "ovel_time.h"
#include "ovel_triple.h"

#endif
