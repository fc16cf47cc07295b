#pragma once

#include "tools/quorvel/Command.h"

// One function for each command: adds it to the program. The session must outlive the program.
namespace Quorvel::Tool {

void AddInfo(CLI::App& program, Session& session);
void AddList(CLI::App& program, Session& session);
void AddCheck(CLI::App& program, Session& session);
void AddGet(CLI::App& program, Session& session);
void AddPut(CLI::App& program, Session& session);
void AddRemove(CLI::App& program, Session& session);
void AddSet(CLI::App& program, Session& session);
void AddPrune(CLI::App& program, Session& session);
void AddCompact(CLI::App& program, Session& session);
void AddClear(CLI::App& program, Session& session);
void AddMap(CLI::App& program, Session& session);
void AddWatch(CLI::App& program, Session& session);
void AddExport(CLI::App& program, Session& session);
void AddImport(CLI::App& program, Session& session);
void AddMerge(CLI::App& program, Session& session);
void AddDiff(CLI::App& program, Session& session);
void AddSalvage(CLI::App& program, Session& session);
void AddPush(CLI::App& program, Session& session);
void AddPull(CLI::App& program, Session& session);
void AddSync(CLI::App& program, Session& session);
void AddAgent(CLI::App& program, Session& session);

// "generate man", "bash", "zsh" and "fish", which --help doesn't show. It describes the commands
// that were added before.
void AddManual(CLI::App& program, Session& session);

}  // namespace Quorvel::Tool
