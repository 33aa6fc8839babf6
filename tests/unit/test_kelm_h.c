/* SPDX-License-Identifier: GPL-2.0 */
/*
 * kelm.h in C11, alone and without extensions, and its layouts there. The engine proves them in
 * C++.
 */
#include "kelm.h"
#include "kelm_layout.h"
