// The interactive prompt: line editing and history where libedit is available, plain
// line reading otherwise; multi-line statements end with `;`.
#pragma once
#include "tools/corvane-sql/Shell.h"

namespace corvane::shell {

void RunInteractive(CShell& shell);

}  // namespace corvane::shell
