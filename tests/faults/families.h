// The table's families, each in a file of its own, and what they are made with.
#pragma once

#include "tests/faults/scenario.h"

namespace tarn::test {

std::vector<Scenario> log_and_text();
std::vector<Scenario> processes();
std::vector<Scenario> traced_memory();
std::vector<Scenario> string_lists();
std::vector<Scenario> locks();
std::vector<Scenario> bulk_transfer();
std::vector<Scenario> file_copies();
std::vector<Scenario> trees();
std::vector<Scenario> temporary_files();
std::vector<Scenario> path_checks();
std::vector<Scenario> nodes();
std::vector<Scenario> conf_text();
std::vector<Scenario> conf_files();
std::vector<Scenario> single_values();
std::vector<Scenario> addresses();
std::vector<Scenario> sockets();
std::vector<Scenario> exact_transfer();
std::vector<Scenario> tls_sessions();
std::vector<Scenario> interfaces();
std::vector<Scenario> mounts_and_shares();
std::vector<Scenario> block_devices();
std::vector<Scenario> member_records();
std::vector<Scenario> share_records();
std::vector<Scenario> backup_settings();
std::vector<Scenario> background_tasks();
std::vector<Scenario> commands();
std::vector<Scenario> discovery();
std::vector<Scenario> backups();

// Of the Pure_Function table.
std::vector<Pure_Function> pure_foundation_functions();

// How functions that work on chains of sections answer.
extern const std::vector<Answer> chain_answers;

Scenario in_memory(std::string function, std::function<void(World &)> prepare, std::function<int(World &)> call,
                   std::string result);

Scenario reader(std::string function, std::string text, std::function<int(World &)> call, int success,
                std::string result);

// Replaces the file under its lock by way of the chains of sections.
Scenario locked_writer(std::string function, std::string situation, std::optional<std::string> before,
                       std::optional<std::string> after, std::function<void(World &)> prepare,
                       std::function<int(World &)> call);

// The same for a caller that has the lock.
Scenario writer(std::string function, std::optional<std::string> before, std::optional<std::string> after,
                std::function<void(World &)> prepare, std::function<int(World &)> call);

Scenario with(Scenario scenario, const std::function<void(Scenario &)> &change);

}  // namespace tarn::test
