// Each event is one write, so that readers of a shared file see whole lines.
#include "host/EventStream.h"

#include "platform/WriteWhole.h"

namespace quorvel::host {

void EventStream::tell(const char* event, Json fields) {
  Json line;
  line["event"] = event;
  line["seconds"] =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  line.update(fields);
  (void)WriteWhole(file_.get(), JsonLine(line));
}

}  // namespace quorvel::host
