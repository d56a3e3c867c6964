#include "VideoCommands.h"

namespace tarn {

const VideoCommands kVideoCommands{
    makeRecordCommand, makeExportCommand, makeArchiveCommand, makeSealCommand,
    makeVerifyCommand, makeMountCommand,  makeAnswerCommand,
#ifdef TARN_WITH_SERVE
    makeServeCommand,
#endif
};

}  // namespace tarn
