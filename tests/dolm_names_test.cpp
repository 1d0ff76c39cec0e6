// Several names and patterns in dolm get and list, and what dolm says of names that mean nothing.
#include "dolm_process.h"

namespace {

using namespace dolm_process;

TEST_F(DolmCalls, GetAndListTakeSeveralNamesAndPatterns) {
    const Call calls[] = {
        {"get set 'net/host*' radio/region", 0, "net/hostname=gateway-17\nradio/region=EU\n"},
        {"get set radio/region net/hostname radio/r*", 0,
         "radio/region=EU\nnet/hostname=gateway-17\n"},
        {"get set 'net/mac*' --hex --sku 2", 0, "net/mac_backup=020000000002\n"},
        {"get set 'net/*' --table override", 0, "net/legacy_proxy=proxy.example:3128\n"},
        {"get set net/hostname radio/region --raw - | od -c -An", 0,
         "   g   a   t   e   w   a   y   -   1   7   E   U\n"},
        {"list set 'radio/cal/*' | wc -l", 0, "6\n"},
        {"list set net/hostname 'radio/r*' --changed | wc -l", 0, "2\n"},
    };
    expect_each(calls);
}

TEST_F(DolmCalls, TellWhatKindOfNameAnUnknownOneIs) {
    const Call calls[] = {
        {"get set net/hostnam", 1,
         "net/hostnam: there is no such NVAR; close to it: net/hostname\n"},
        {"get set keys", 1, "close to it: security/keys\n"},
        {"get set net/host", 1, "close to it: net/hostname\n"},
        {"get set what/ever/else", 1, "what/ever/else: there is no such NVAR\n"},
        {"get set radio/region --sku 2", 1, "radio/region: is of SKU 1 and not of SKU 2\n"},
        {"list set mca/deploy", 1, "mca/deploy: is a file and no NVAR\n"},
        {"get set net/legacy_proxy", 1,
         "stands in vync.cfg alone, so that it has no current value"},
        {"get set net/mac --table override", 1, "net/mac: has no overriding value\n"},
        {"list set 'net/*' 'x*'", 1, "x*: fits no name\n"},
        {"get set a b", 1, "dolm: a: there is no such NVAR\ndolm: b: there is no such NVAR\n"},
        // Nothing is a pattern where one value is given.
        {"set set 'net/*' x", 2, "'net/*' is a pattern; a new value is for a single NVAR"},
    };
    expect_each(calls);
}

} // namespace
