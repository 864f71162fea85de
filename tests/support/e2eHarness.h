// End-to-end harness (work in progress).
#pragma once
