// The page of one run.
#pragma once

#include <string>
#include <vector>

#include "host/report/ResultFiles.h"
#include "host/report/RunLog.h"

namespace quorvel::host {

// The outcome in one sentence, as HTML.
std::string SentenceOf(const RunResult& result);

// A whole page. `log` may be null. Of very many containers it shows those that did not arrive and
// the slowest, and says so.
std::string RunPage(const RunResult& result, const RunLog* log,
                    const std::vector<UnusableFile>& unusable);

// What a person has to know of files that could not be used; empty without any.
std::string UnusableFilesAsHtml(const std::vector<UnusableFile>& files, std::uint64_t count);

// "3 files, 1.2 kB (Documents)".
std::string LossInWords(const ResultLoss& loss);

}  // namespace quorvel::host
