// Linked only by the build's link check test: a reference that nothing
// defines, which the check must refuse.
extern "C" int arbo_planted_undefined();
extern "C" int arbo_planted_caller() { return arbo_planted_undefined(); }
