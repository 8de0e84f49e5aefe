// Frame readers: not built yet.
#include "qzfilesystem.h"
