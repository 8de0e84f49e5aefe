// The I-frame index: the append-only log of each root node.
#include "qzfilesystem.h"
