// The only copy of the module's state.
#include "veldarin/modules/state.h"

namespace modules_util {

State state;

}  // namespace modules_util
