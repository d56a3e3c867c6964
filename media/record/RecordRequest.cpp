#include "media/record/RecordRequest.h"

#include <set>

#include "media/MediaInput.h"

namespace tarn {
namespace {

constexpr unsigned kMostChannel = 127;

// What is wrong with it, "" when nothing is.
std::string faultOf(const RecordRequest& request) {
  if (request.inputs.empty()) return "there is no input";
  std::set<unsigned> channels;
  size_t standardInputs = 0;
  bool endless = false;
  for (const InputRequest& input : request.inputs) {
    if (input.channel > kMostChannel) return "channels are 0 to 127";
    if (!channels.insert(input.channel).second)
      return "channel " + std::to_string(input.channel) + " is given to two inputs";
    if (input.input == "-") ++standardInputs;
    endless = endless || input.input == "-" || MediaInput::isAddress(input.input);
  }
  if (standardInputs > 1) return "standard input can be recorded on one channel only";
  if (request.loop > 1 && endless) return "only files can be recorded more than once";
  return "";
}

}  // namespace

bool checkRecordRequest(const RecordRequest& request, std::string* error) {
  const std::string fault = faultOf(request);
  if (!fault.empty()) *error = fault;
  return fault.empty();
}

}  // namespace tarn
