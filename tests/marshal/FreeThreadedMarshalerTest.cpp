// PLACEHOLDER: replaced by the suite's tests.
