// Error codes of the basic suite.
#pragma once

#define kSPNoError 0
