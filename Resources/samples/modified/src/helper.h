#pragma once
int helper(void);
