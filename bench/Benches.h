#pragma once

#include "bench/Table.h"

#include <vector>

namespace verdo::bench {

// Each measures one thing and adds its rows. They throw std::runtime_error when what they measure
// does not work at all.

/// Start to hello, the idle long poll, SIGTERM to exit.
void benchRun(std::vector<Row>& rows);
/// Poll reply to acknowledgement to running child.
void benchJobs(std::vector<Row>& rows);
/// One job that prints a gigabyte.
void benchOutput(std::vector<Row>& rows);
/// A job with a file of a gigabyte.
void benchDownload(std::vector<Row>& rows);
/// A thousand LLM jobs leased at once.
void benchLLM(std::vector<Row>& rows);
/// What jobs with large payloads cost in memory.
void benchPayload(std::vector<Row>& rows);
/// What 200,000 polls and 20,000 jobs leave behind.
void benchLifetime(std::vector<Row>& rows);
/// Writing JSON strings.
void benchJson(std::vector<Row>& rows);
/// The tray app on a desktop of its own.
void benchApp(std::vector<Row>& rows);

}  // namespace verdo::bench
