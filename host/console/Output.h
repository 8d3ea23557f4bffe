// The process's standard streams: what is written there arrives whole, or that is noticed.
#pragma once

#include <string>
#include <string_view>

#include "host/console/ExitCode.h"
#include "platform/UniqueDescriptor.h"
#include "platform/WriteWhole.h"

namespace quorvel::host {

// Called first in main: a closed standard stream is occupied, so that no file opened later is
// mistaken for it (writing to it fails as it should), and a closed pipe becomes an error of the
// write instead of the end of the process.
void PrepareStandardStreams();

// Opens the file that --log names, or makes it, to append to. None with the error otherwise.
UniqueDescriptor OpenLogFile(const std::string& file, FatalError& error);

// Writes a command's result to standard output. `code`, or ExitFailed with a message on standard
// error, which begins with `complaint`, when the result could not be written.
int WriteResult(
    std::string_view text, int code,
    const std::string& complaint = "migration-host: standard output: the result cannot be written");

// Tells the user, and with `json` the program that reads standard output. The error's exit code.
int ReportFatal(const FatalError& error, bool json, const std::string& program = "migration-host");

}  // namespace quorvel::host
