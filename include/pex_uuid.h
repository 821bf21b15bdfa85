// Offered to other programs of the robot; the daemon has no use for it. Any thread.
#pragma once

char *pex_generate_uuid_malloc();  // 32 upper-case digits, freed by the caller
