<?php

declare(strict_types=1);

namespace Quorvex\Authority;

require __DIR__ . '/../lib/bootstrap.php';

Watch::serve();
