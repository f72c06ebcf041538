// SPDX-License-Identifier: MIT
#include "reboot_ploy.h"

void ReloadRebootPloy() {}
