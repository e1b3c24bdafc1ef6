// States of the United States and their territories by numeric FIPS code, by
// postal code and by ZIP code. A code that names no state gives a blank (or
// a missing number).
#include <string>

#include "sfnc/xfint.h"

namespace vrta {

namespace {

struct State {
    int fips;
    char postal[3];
    const char* name;  // at most 20 characters: the length of the results
};

const State kStates[] = {
    {1, "AL", "Alabama"},         {2, "AK", "Alaska"},          {4, "AZ", "Arizona"},
    {5, "AR", "Arkansas"},        {6, "CA", "California"},      {8, "CO", "Colorado"},
    {9, "CT", "Connecticut"},     {10, "DE", "Delaware"},       {11, "DC", "District of Columbia"},
    {12, "FL", "Florida"},        {13, "GA", "Georgia"},        {15, "HI", "Hawaii"},
    {16, "ID", "Idaho"},          {17, "IL", "Illinois"},       {18, "IN", "Indiana"},
    {19, "IA", "Iowa"},           {20, "KS", "Kansas"},         {21, "KY", "Kentucky"},
    {22, "LA", "Louisiana"},      {23, "ME", "Maine"},          {24, "MD", "Maryland"},
    {25, "MA", "Massachusetts"},  {26, "MI", "Michigan"},       {27, "MN", "Minnesota"},
    {28, "MS", "Mississippi"},    {29, "MO", "Missouri"},       {30, "MT", "Montana"},
    {31, "NE", "Nebraska"},       {32, "NV", "Nevada"},         {33, "NH", "New Hampshire"},
    {34, "NJ", "New Jersey"},     {35, "NM", "New Mexico"},     {36, "NY", "New York"},
    {37, "NC", "North Carolina"}, {38, "ND", "North Dakota"},   {39, "OH", "Ohio"},
    {40, "OK", "Oklahoma"},       {41, "OR", "Oregon"},         {42, "PA", "Pennsylvania"},
    {44, "RI", "Rhode Island"},   {45, "SC", "South Carolina"}, {46, "SD", "South Dakota"},
    {47, "TN", "Tennessee"},      {48, "TX", "Texas"},          {49, "UT", "Utah"},
    {50, "VT", "Vermont"},        {51, "VA", "Virginia"},       {53, "WA", "Washington"},
    {54, "WV", "West Virginia"},  {55, "WI", "Wisconsin"},      {56, "WY", "Wyoming"},
    {60, "AS", "American Samoa"}, {66, "GU", "Guam"},           {69, "MP", "N. Mariana Islands"},
    {72, "PR", "Puerto Rico"},    {78, "VI", "Virgin Islands"},
};

const State* byfips(double code) {
    if (vzismiss(code)) return nullptr;
    for (const State& s : kStates)
        if (s.fips == code) return &s;
    return nullptr;
}

const State* bypostal(const X_STRING* x) {
    std::string v(x->data, static_cast<size_t>(xfslen(x)));
    v.erase(0, v.find_first_not_of(' '));
    v.resize(static_cast<size_t>(vzstrip(v.data(), static_cast<int>(v.size()))));
    vzMP(v.data(), static_cast<int>(v.size()));
    for (const State& s : kStates)
        if (v == s.postal) return &s;
    return nullptr;
}

// ZIP codes by their first three digits: each row runs to the next.
struct ZipRange {
    int from;
    char postal[3];
};
const ZipRange kZips[] = {
    {0, ""},     {5, "NY"},   {6, "PR"},   {8, "VI"},   {9, "PR"},   {10, "MA"},  {28, "RI"},  {30, "NH"},
    {39, "ME"},  {50, "VT"},  {55, "MA"},  {56, "VT"},  {60, "CT"},  {70, "NJ"},  {90, ""},    {100, "NY"},
    {150, "PA"}, {197, "DE"}, {200, "DC"}, {201, "VA"}, {202, "DC"}, {206, "MD"}, {220, "VA"}, {247, "WV"},
    {270, "NC"}, {290, "SC"}, {300, "GA"}, {320, "FL"}, {340, ""},   {341, "FL"}, {350, "AL"}, {370, "TN"},
    {386, "MS"}, {398, "GA"}, {400, "KY"}, {430, "OH"}, {460, "IN"}, {480, "MI"}, {500, "IA"}, {530, "WI"},
    {550, "MN"}, {568, ""},   {569, "DC"}, {570, "SD"}, {580, "ND"}, {590, "MT"}, {600, "IL"}, {630, "MO"},
    {660, "KS"}, {680, "NE"}, {700, "LA"}, {716, "AR"}, {730, "OK"}, {733, "TX"}, {734, "OK"}, {750, "TX"},
    {800, "CO"}, {820, "WY"}, {832, "ID"}, {840, "UT"}, {850, "AZ"}, {870, "NM"}, {885, "TX"}, {889, "NV"},
    {900, "CA"}, {962, ""},   {967, "HI"}, {969, "GU"}, {970, "OR"}, {980, "WA"}, {995, "AK"},
};

const State* byzip(const X_STRING* x) {
    std::string v(x->data, static_cast<size_t>(xfslen(x)));
    v.erase(0, v.find_first_not_of(' '));
    if (v.size() < 5) return nullptr;
    int zip = 0;
    for (int i = 0; i < 5; i++) {
        if (v[static_cast<size_t>(i)] < '0' || v[static_cast<size_t>(i)] > '9') return nullptr;
        zip = zip * 10 + (v[static_cast<size_t>(i)] - '0');
    }
    // Five-digit exceptions inside the Pacific prefixes.
    const char* postal = nullptr;
    if (zip == 96799) postal = "AS";
    else if (zip >= 96950 && zip <= 96952) postal = "MP";
    else if (zip / 100 == 969 && (zip < 96910 || zip > 96932)) return nullptr;
    if (!postal) {
        const ZipRange* z = kZips;
        for (const ZipRange& r : kZips)
            if (r.from <= zip / 100) z = &r;
        postal = z->postal;
    }
    for (const State& s : kStates)
        if (strcmp(s.postal, postal) == 0) return &s;
    return nullptr;
}

enum class Out { Upper, Mixed, Postal };

int name(const State* s, Out how, void* r) {
    X_STRING* rs = static_cast<X_STRING*>(r);
    if (!s) return xffillstr(rs, ' ', 1);
    std::string v = how == Out::Postal ? s->postal : s->name;
    if (how == Out::Upper) vzMP(v.data(), static_cast<int>(v.size()));
    return xfsetstr(rs, v.data(), static_cast<long>(v.size()));
}

}  // namespace

int fncfipname(FNCPAR* p, void* r) { return name(byfips(xfnum(p, 1)), Out::Upper, r); }
int fncfipnamel(FNCPAR* p, void* r) { return name(byfips(xfnum(p, 1)), Out::Mixed, r); }
int fncfipstate(FNCPAR* p, void* r) { return name(byfips(xfnum(p, 1)), Out::Postal, r); }
int fncstname(FNCPAR* p, void* r) { return name(bypostal(xfstr(p, 1)), Out::Upper, r); }
int fncstnamel(FNCPAR* p, void* r) { return name(bypostal(xfstr(p, 1)), Out::Mixed, r); }
int fnczipname(FNCPAR* p, void* r) { return name(byzip(xfstr(p, 1)), Out::Upper, r); }
int fnczipnamel(FNCPAR* p, void* r) { return name(byzip(xfstr(p, 1)), Out::Mixed, r); }
int fnczipstate(FNCPAR* p, void* r) { return name(byzip(xfstr(p, 1)), Out::Postal, r); }

int fncstfips(FNCPAR* p, void* r) {
    const State* s = bypostal(xfstr(p, 1));
    return xfret(r, s ? s->fips : VZ_MISSING);
}

int fnczipfips(FNCPAR* p, void* r) {
    const State* s = byzip(xfstr(p, 1));
    return xfret(r, s ? s->fips : VZ_MISSING);
}

}  // namespace vrta
