# The interface: what is installed for programs, and nothing else. docs/api.md says what is promised of
# it. A header stands here by the words by which it is included, in the tree and once installed; it
# includes no header that is missing here (tests/install/headers).
set(TARN_PUBLIC_HEADERS  # below src/
  base/Export.h base/Mutex.h base/UniqueFd.h
  fat/CFATAccess.h fat/ChunkFiles.h
  mesg/CMesgClient.h mesg/CMesgServer.h mesg/RequestPatience.h
  db/CApiDb.h db/DbRecords.h
  chunk/ChunkEvent.h chunk/CTARNChunkBase.h chunk/CTARNDBChunk.h chunk/CTARNEndlessChunk.h
  chunk/CTARNMirroredChunk.h chunk/CTARNStreamChunk.h chunk/CTARNSyslogChunk.h
  manager/ChunkRecords.h manager/CTARNEndlessManager.h manager/CTARNEndlessManagerNative.h
  manager/CTARNManagerBase.h manager/CTARNStreamManager.h manager/CTARNStreamManagerNative.h
  manager/CTARNSyslogManager.h manager/RequestResult.h
  dblog/CDbLog.h dblog/CDbRestore.h
  api/CApiTarnSyslogRead.h api/Version.h)
set(TARN_RECORDER_PUBLIC_HEADERS
  recorder/card/CardFormatter.h recorder/card/CardInfo.h recorder/card/CardLayout.h
  recorder/card/CardRepair.h recorder/card/ChunkChannels.h recorder/card/PictureTime.h
  recorder/recording/PictureEntry.h recorder/recording/RecordingReader.h
  recorder/recording/KeptRow.h recorder/recording/SoundBlock.h recorder/recording/SoundFormat.h
  recorder/rows/RedatingPlan.h recorder/rows/RedatingRecord.h recorder/rows/ServerPatience.h
  recorder/log/LogFormat.h recorder/log/LogWriter.h
  recorder/session/ClockWatch.h recorder/session/EventKeeper.h recorder/session/KeptCopies.h
  recorder/session/PictureClock.h recorder/session/PictureQueue.h recorder/session/RecordingError.h
  recorder/session/RecordingSession.h recorder/session/RedatingReversal.h
  recorder/session/RecordingStatistics.h recorder/session/SoundSession.h recorder/session/StatusTeller.h
  recorder/recovery/ManageRepair.h recorder/recovery/Recovery.h recorder/recovery/RecoveryReport.h
  recorder/recovery/StartUpReport.h
  recorder/server/ManagementServer.h
  recorder/check/CardCheck.h recorder/check/CardFinding.h recorder/check/CardHoldings.h)
set(TARN_MEDIA_PUBLIC_HEADERS  # installed with the media library
  media/LivePictures.h media/MediaInput.h media/MediaOutput.h
  media/record/MediaRecorder.h media/record/RecordConfig.h media/record/RecordListener.h
  media/record/RecordRequest.h media/record/SafetyWatch.h
  media/seal/FileProgress.h
  media/seal/FileSealer.h media/seal/FileVerifier.h media/seal/SealRequest.h
  media/PictureSize.h media/export/ExportReport.h media/export/ExportRequest.h media/export/MediaExporter.h)
set(TARN_C_PUBLIC_HEADERS tarn.h)  # below capi/; for C, with a library of its own
