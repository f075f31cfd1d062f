#pragma once

// The whole host SDK.
#include <Tavro8/GDRV/IModule.h>  // IWYU pragma: export
