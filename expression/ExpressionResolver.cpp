#include "expression/ExpressionResolver.h"
