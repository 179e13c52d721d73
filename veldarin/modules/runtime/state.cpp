// The one copy of the module's state.
#include "state.h"

namespace modules_util {

State state;

}  // namespace modules_util
