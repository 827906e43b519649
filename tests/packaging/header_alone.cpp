#include "framegrabber.h"
