/* SPDX-License-Identifier: GPL-2.0 */
/*
 * kelm.h in C11, alone and without extensions. That its layouts are right it asserts itself, in
 * either language.
 */
#include "kelm.h"
