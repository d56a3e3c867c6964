"""Cards of the recorder: what is recorded on one, each picture with its time, exports, proofs of seals.

    import tarn

    with tarn.open("card.img") as card:
        for recording in card.recordings():
            print(recording.channel, recording.start, recording.state)
            for picture in recording.pictures():
                print(picture.time, picture.key, len(picture.data))

A card that is opened by its path stays byte for byte as it is. Times are datetime objects with a zone:
that of the recording where its pictures tell one, else UTC. What fails raises tarn.Error with the
reason. Works over libTarnC (tarn.h), whose rules for threads are those of this module, too.
"""
from ._card import Card, Event, ExportedFile, Frame, Picture, Recording, SoundFormat, open, recorder
from ._library import Error, version
from ._proof import Proof, Seal, Source, verify

__all__ = ["Card", "Error", "Event", "ExportedFile", "Frame", "Picture", "Proof", "Recording", "Seal", "SoundFormat",
           "Source", "open", "recorder", "verify", "version"]
__version__ = version()
