#pragma once

namespace tarn {

// README.txt: what lies in the folder, for whoever has nothing but it.
inline constexpr char kEvidenceReadme[] =
    R"(What a recorder's card holds of one period, taken out without a change.

report.html      for people: open it in a browser; it needs no network and no scripts
manifest.json    the same for programs, and the SHA-256 of each file here but those below
SHA256SUMS       of each file here but itself and its seal: sha256sum --check SHA256SUMS
SHA256SUMS.sig   the seal of SHA256SUMS (RSASSA-PSS, SHA-256, 20 bytes of salt); only of sealed folders
certificate.pem  of the key that sealed it; only of sealed folders
video/           the pictures and the sound of each channel, each sealed by itself where there is a key
log.txt          the system log on the card, its lines of the period as they are there
original/        what the recorder keeps beside its pictures, as it is stored; numbers are little-endian

original/recordings.bin   a row of 48 bytes for each recording, as the journal stores it:
    0 key, 4 bytes            4 trigger, 2             6 frame setting, 2      8 bit-rate setting, 4
   12 pictures, 4            16 chunk, 4              20 place in the picture chunk, 4
   24 bytes there, 4         28 state, 4              32 start, s since 1970 (UTC), 4
   36 end, 4                 40 ms of the start, 2    42 ms of the end, 2
   44 place of its journal record, 4
original/events.bin   a row of 24 bytes for each event:
    0 key, 4 bytes            4 trigger, 2             6 seconds before the start, 2
    8 start, s since 1970, 4 12 end, 4                16 ms of the start, 2   18 ms of the end, 2
   20 place of its journal record, 4
original/entries.bin   of each recording its header and its entries, records of 32 bytes each, as they
    lie in the picture chunk; manifest.json says where those of a recording begin ("entries"), and how
    many bytes the card did not give: they are zeros here. An entry, whose pictures and sums are
    described in the format's document:
    0 key of the recording, 4  4 number of the picture, 4  8 place in the stream chunk, 4  12 bytes, 4
   16 presentation, s since 1970, 4   20 ms, 2   22 us below the ms, 2
   24 decoding minus presentation, us, signed, 4   28 flags and checksum, 2   30 CRC-16, 2
original/journal-recordings.bin, original/journal-events.bin   the journal's records that concern the
    period, those of recordings that were given up, too. Of each: its place in the journal, 4 bytes;
    which copies the card gave, 4 (1: the first, 2: the second); the first copy; the second copy. A
    record of a recording has 64 bytes, one of an event 32: marker, 4; the row as above; reserved
    bytes; checksum.
)";

}  // namespace tarn
