#include "tools/kpim/Result.h"

#include "tools/kpim/Commands.h"
#include "tools/kpim/Report.h"

namespace kpim {

namespace {

std::string JSONMessages(const std::vector<Message>& messages) {
  std::vector<std::string> objects;
  objects.reserve(messages.size());
  for (const Message& message : messages) {
    objects.push_back(
        JSONObject().AddString("about", message.what).AddString("text", message.why).Text());
  }
  return JSONArray(objects);
}

}  // namespace

void Result::AddTotals(const TreeTotals& totals) {
  members_.AddNumber("entries", totals.entries).AddNumber("bytes", totals.bytes);
}

double Result::Seconds() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

int Result::Print(int status) const {
  const JSONObject object = JSONObject()
                                .AddBool("ok", status == kExitOK)
                                .Append(members_)
                                .AddSeconds("seconds", Seconds())
                                .Add("warnings", JSONMessages(ReportedWarnings()))
                                .Add("errors", JSONMessages(ReportedErrors()));
  kpim::Print(object.Text() + "\n");
  return status;
}

}  // namespace kpim
