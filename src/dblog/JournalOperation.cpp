#include "dblog/JournalOperation.h"

#include "dblog/DbLogMessages.h"

namespace tarn {
namespace {

constexpr uint32_t kRecmanOnly = 1u << kModeRecman;
constexpr uint32_t kRecmanOrMenu = 1u << kModeRecman | 1u << kModeMenu;
constexpr uint32_t kAnyValid = 1u << kModeRecman | 1u << kModeOther | 1u << kModeMenu;

}  // namespace

const JournalOperation JournalOperation::insertEvent = {
    JournalKind::kEvent,  "insertEvent", kRecmanOnly, kMsgInsertEventRefused,
    kMsgInsertEventWrite, nullptr,       nullptr,     nullptr};
const JournalOperation JournalOperation::insertStream = {
    JournalKind::kStream,  "insertStream", kAnyValid, kMsgInsertStreamRefused,
    kMsgInsertStreamWrite, nullptr,        nullptr,   nullptr};
const JournalOperation JournalOperation::updateEvent = {
    JournalKind::kEvent,  "updateEvent",       kRecmanOrMenu,       kMsgUpdateEventRefused,
    kMsgUpdateEventWrite, kMsgUpdateEventRead, kMsgUpdateEventSeek, kMsgUpdateEventNoRecord};
const JournalOperation JournalOperation::updateStream = {
    JournalKind::kStream,    "updateStream",          kAnyValid,
    kMsgUpdateStreamRefused, kMsgUpdateStreamWrite,   kMsgUpdateStreamRead,
    kMsgUpdateStreamSeek,    kMsgUpdateStreamNoRecord};
const JournalOperation JournalOperation::deleteEvent = {
    JournalKind::kEvent,  "deleteEvent",       kRecmanOrMenu,       kMsgDeleteEventRefused,
    kMsgDeleteEventWrite, kMsgDeleteEventRead, kMsgDeleteEventSeek, kMsgDeleteEventNoRecord};
const JournalOperation JournalOperation::deleteStream = {
    JournalKind::kStream,  "deleteStream",       kRecmanOnly,          kMsgDeleteStreamRefused,
    kMsgDeleteStreamWrite, kMsgDeleteStreamRead, kMsgDeleteStreamSeek, kMsgDeleteStreamNoRecord};
const JournalOperation JournalOperation::eventOffset = {JournalKind::kEvent,
                                                        "getEventLogBackOffset",
                                                        kRecmanOnly,
                                                        kMsgEventOffsetRefused,
                                                        nullptr,
                                                        nullptr,
                                                        nullptr,
                                                        nullptr};
const JournalOperation JournalOperation::streamOffset = {JournalKind::kStream,
                                                         "getStreamLogBackOffset",
                                                         kAnyValid,
                                                         kMsgStreamOffsetRefused,
                                                         nullptr,
                                                         nullptr,
                                                         nullptr,
                                                         nullptr};
const JournalOperation JournalOperation::clear = {JournalKind::kEvent,
                                                  "clearDbLogFreeAddr",
                                                  kRecmanOnly,
                                                  kMsgClearRefused,
                                                  nullptr,
                                                  nullptr,
                                                  nullptr,
                                                  nullptr};

const JournalOperation JournalOperation::correct = {JournalKind::kEvent,
                                                    "correctFreeOffset",
                                                    kAnyValid,
                                                    kMsgCorrectRefused,
                                                    nullptr,
                                                    nullptr,
                                                    nullptr,
                                                    nullptr};

}  // namespace tarn
